#pragma once

// The list of devices that count as ours, with the two bookkeeping paths, as read
// from cyusb.conf.
class CyusbConfig {
public:
    static constexpr int MaxDevices = 10;
    // The section stops taking devices one short of the table's size.
    static constexpr int DeviceLimit = MaxDevices - 1;

    struct VPD {
        unsigned short vid;
        unsigned short pid;
        char desc[30];
    };

    char logfile[256] = {};
    char pidfile[256] = {};
    int maxdevices = 0;
    VPD vpd[MaxDevices] = {};

    // Parses an opened file. A line with an unknown key raises ConfigFileError naming
    // path and line; the table is emptied first.
    void read(const char* path, int fd);
};
