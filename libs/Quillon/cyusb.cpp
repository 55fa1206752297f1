#include "cyusb.h"

#include "cyusbconfig.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

struct OpenDevice {
    libusb_device* dev;
    libusb_device_handle* handle;
    unsigned short vid;
    unsigned short pid;
    char is_open;
    char busnum;
    char devaddr;
};

CyusbConfig config;
unsigned int checksum = 0;
int numdev = 0;
libusb_device** list = nullptr;
int nid = 0;
OpenDevice cydev[CyusbConfig::MaxDevices];

constexpr unsigned char VendorOut = 0x40;
constexpr unsigned char VendorInEeprom = 0xC5;
constexpr unsigned char FirmwareRequest = 0xA0;
constexpr unsigned short Fx2CpuControl = 0xE600;
constexpr int EepromPage = 32;
constexpr unsigned short EepromBase = 0x1000;
constexpr int Fx3Piece = 4096;

libusb_device* deviceOf(libusb_device_handle* handle)
{
    return libusb_get_device(handle);
}

int hexValue(const char* text, int digits)
{
    char part[9] = {};
    memcpy(part, text, static_cast<size_t>(digits));
    return static_cast<int>(strtol(part, nullptr, 16));
}

uint32_t littleEndian32(const unsigned char* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

} // namespace

int renumerate(bool open)
{
    // The previous list goes now; open handles keep their devices referenced.
    if (list) {
        libusb_free_device_list(list, 1);
        list = nullptr;
    }
    numdev = static_cast<int>(libusb_get_device_list(nullptr, &list));
    if (numdev < 0) {
        list = nullptr;
        printf("Library: Error in enumerating devices...\n");
        return -4;
    }
    nid = 0;
    if (numdev == 0)
        return 0;
    for (int i = 0; i < numdev && nid < CyusbConfig::MaxDevices; ++i) {
        libusb_device_descriptor desc;
        if (libusb_get_device_descriptor(list[i], &desc) != 0)
            continue;
        for (int j = 0; j < config.maxdevices; ++j) {
            if (desc.idVendor != config.vpd[j].vid || desc.idProduct != config.vpd[j].pid)
                continue;
            if (open) {
                OpenDevice& d = cydev[nid];
                d.dev = list[i];
                const int r = libusb_open(d.dev, &d.handle);
                if (r) {
                    d.handle = nullptr;
                    printf("Error in opening device, code: %d, name: %s\n", r, libusb_error_name(r));
                    return -5;
                }
                d.vid = desc.idVendor;
                d.pid = desc.idProduct;
                d.is_open = 1;
                d.busnum = static_cast<char>(libusb_get_bus_number(d.dev));
                d.devaddr = static_cast<char>(libusb_get_device_address(d.dev));
            }
            ++nid;
            break;
        }
    }
    return nid;
}

int cyusb_open(const char* path)
{
    printf("Opening and reading: '%s'\n", path);
    const int fd = ::open(path, O_RDONLY);
    if (fd < 0) {
        printf("cyusb.conf file not found, path: %s. Exiting\n", path);
        return -1;
    }
    config.read(path, fd);
    if (libusb_init(nullptr)) {
        printf("Error in initializing libusb library...\n");
        return -2;
    }
    return renumerate(true);
}

int cyusb_open(unsigned short vid, unsigned short pid)
{
    if (libusb_init(nullptr)) {
        printf("Error in initializing libusb library...\n");
        return -1;
    }
    libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, vid, pid);
    if (!handle) {
        printf("Device not found\n");
        return -2;
    }
    OpenDevice& d = cydev[0];
    d.dev = libusb_get_device(handle);
    d.handle = handle;
    d.vid = vid;
    d.pid = pid;
    d.is_open = 1;
    d.busnum = static_cast<char>(libusb_get_bus_number(d.dev));
    d.devaddr = static_cast<char>(libusb_get_device_address(d.dev));
    nid = 1;
    return 1;
}

void cyusb_close()
{
    for (int i = 0; i < nid && i < CyusbConfig::MaxDevices; ++i) {
        if (cydev[i].handle)
            libusb_close(cydev[i].handle);
    }
    std::fill(std::begin(cydev), std::end(cydev), OpenDevice{});
    nid = 0;
    if (list) {
        libusb_free_device_list(list, 1);
        list = nullptr;
    }
    libusb_exit(nullptr);
}

libusb_device_handle* cyusb_gethandle(int index)
{
    return cydev[index].handle;
}

unsigned short cyusb_getvendor(libusb_device_handle* handle)
{
    libusb_device_descriptor desc;
    libusb_get_device_descriptor(deviceOf(handle), &desc);
    return desc.idVendor;
}

unsigned short cyusb_getproduct(libusb_device_handle* handle)
{
    libusb_device_descriptor desc;
    libusb_get_device_descriptor(deviceOf(handle), &desc);
    return desc.idProduct;
}

void cyusb_error(int code)
{
    const char* text;
    switch (code) {
    case -1: text = "Input/output error\n"; break;
    case -2: text = "Invalid parameter\n"; break;
    case -3: text = "Access denied (insufficient permissions)\n"; break;
    case -4: text = "No such device. Disconnected...?\n"; break;
    case -5: text = "Entity not found\n"; break;
    case -6: text = "Resource busy\n"; break;
    case -7: text = "Operation timed out\n"; break;
    case -8: text = "Overflow\n"; break;
    case -9: text = "Pipe error\n"; break;
    case -10: text = "System call interrupted, ( due to signal ? )\n"; break;
    case -11: text = "Insufficient memory\n"; break;
    case 12: text = "Operation not supported/implemented\n"; break;
    default: text = "Unknown internal error\n"; break;
    }
    fputs(text, stderr);
}

int cyusb_get_busnumber(libusb_device_handle* handle) { return libusb_get_bus_number(deviceOf(handle)); }
int cyusb_get_devaddr(libusb_device_handle* handle) { return libusb_get_device_address(deviceOf(handle)); }
int cyusb_get_max_packet_size(libusb_device_handle* handle, unsigned char endpoint)
{
    return libusb_get_max_packet_size(deviceOf(handle), endpoint);
}
int cyusb_get_max_iso_packet_size(libusb_device_handle* handle, unsigned char endpoint)
{
    return libusb_get_max_iso_packet_size(deviceOf(handle), endpoint);
}
int cyusb_get_configuration(libusb_device_handle* handle, int* config)
{
    return libusb_get_configuration(handle, config);
}
int cyusb_set_configuration(libusb_device_handle* handle, int config)
{
    return libusb_set_configuration(handle, config);
}
int cyusb_claim_interface(libusb_device_handle* handle, int interface)
{
    return libusb_claim_interface(handle, interface);
}
int cyusb_release_interface(libusb_device_handle* handle, int interface)
{
    return libusb_release_interface(handle, interface);
}
int cyusb_set_interface_alt_setting(libusb_device_handle* handle, int interface, int altsetting)
{
    return libusb_set_interface_alt_setting(handle, interface, altsetting);
}
int cyusb_clear_halt(libusb_device_handle* handle, unsigned char endpoint)
{
    return libusb_clear_halt(handle, endpoint);
}
int cyusb_reset_device(libusb_device_handle* handle) { return libusb_reset_device(handle); }
int cyusb_kernel_driver_active(libusb_device_handle* handle, int interface)
{
    return libusb_kernel_driver_active(handle, interface);
}
int cyusb_detach_kernel_driver(libusb_device_handle* handle, int interface)
{
    return libusb_detach_kernel_driver(handle, interface);
}
int cyusb_attach_kernel_driver(libusb_device_handle* handle, int interface)
{
    return libusb_attach_kernel_driver(handle, interface);
}
int cyusb_get_device_descriptor(libusb_device_handle* handle, libusb_device_descriptor* desc)
{
    return libusb_get_device_descriptor(deviceOf(handle), desc);
}
int cyusb_get_active_config_descriptor(libusb_device_handle* handle, libusb_config_descriptor** config)
{
    return libusb_get_active_config_descriptor(deviceOf(handle), config);
}
int cyusb_get_config_descriptor(libusb_device_handle* handle, unsigned char index,
                                libusb_config_descriptor** config)
{
    return libusb_get_config_descriptor(deviceOf(handle), index, config);
}
int cyusb_get_config_descriptor_by_value(libusb_device_handle* handle, unsigned char value,
                                         libusb_config_descriptor** config)
{
    return libusb_get_config_descriptor_by_value(deviceOf(handle), value, config);
}
void cyusb_free_config_descriptor(libusb_config_descriptor* config) { libusb_free_config_descriptor(config); }
int cyusb_get_string_descriptor_ascii(libusb_device_handle* handle, unsigned char index, unsigned char* data,
                                      int length)
{
    return libusb_get_string_descriptor_ascii(handle, index, data, length);
}
int cyusb_get_descriptor(libusb_device_handle* handle, unsigned char type, unsigned char index,
                         unsigned char* data, int length)
{
    return libusb_control_transfer(handle, 0x80, 6, static_cast<uint16_t>(type << 8 | index), 0, data,
                                   static_cast<uint16_t>(length), 1000);
}
int cyusb_get_string_descriptor(libusb_device_handle* handle, unsigned char index, unsigned short langid,
                                unsigned char* data, int length)
{
    return libusb_control_transfer(handle, 0x80, 6, static_cast<uint16_t>(0x300 | index), langid, data,
                                   static_cast<uint16_t>(length), 1000);
}
int cyusb_control_transfer(libusb_device_handle* handle, unsigned char requestType, unsigned char request,
                           unsigned short value, unsigned short index, unsigned char* data,
                           unsigned short length, unsigned int timeout)
{
    return libusb_control_transfer(handle, requestType, request, value, index, data, length, timeout);
}
int cyusb_bulk_transfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data, int length,
                        int* transferred, unsigned int timeout)
{
    return libusb_bulk_transfer(handle, endpoint, data, length, transferred, timeout);
}
int cyusb_interrupt_transfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                             int length, int* transferred, unsigned int timeout)
{
    return libusb_interrupt_transfer(handle, endpoint, data, length, transferred, timeout);
}

int cyusb_writeToEeprom(libusb_device_handle* handle, unsigned char* data, int length)
{
    // Pages go out whole; the caller's buffer is copied into a padded page so that the
    // last full page never reads past its end.
    unsigned char page[EepromPage];
    const int pages = (length + EepromPage - 1) / EepromPage;
    int r = 0;
    for (int p = 0; p < pages; ++p) {
        const int offset = p * EepromPage;
        memset(page, 0, sizeof page);
        memcpy(page, data + offset, static_cast<size_t>(std::min(EepromPage, length - offset)));
        usleep(10000);
        r = libusb_control_transfer(handle, VendorOut, 0xF4, static_cast<uint16_t>(EepromBase + offset), 0, page,
                                    EepromPage, 2000);
        if (r < 0)
            return r;
    }
    const int rest = length % EepromPage;
    if (rest) {
        const int offset = (pages - 1) * EepromPage;
        usleep(10000);
        r = libusb_control_transfer(handle, VendorOut, 0xF4, static_cast<uint16_t>(EepromBase + offset), 0,
                                    data + offset, static_cast<uint16_t>(rest), 2000);
        if (r < 0)
            return r;
    }
    return 0;
}

int cyusb_readFromEeprom(libusb_device_handle* handle, unsigned char* data, int length)
{
    const int pageSize = std::min(length, EepromPage);
    if (pageSize <= 0)
        return 0;
    unsigned char page[EepromPage];
    const int pages = (length + pageSize - 1) / pageSize;
    int r = 0;
    for (int p = 0; p < pages; ++p) {
        const int offset = p * pageSize;
        usleep(10000);
        r = libusb_control_transfer(handle, VendorInEeprom, 0xF3, static_cast<uint16_t>(EepromBase + offset), 0,
                                    page, static_cast<uint16_t>(pageSize), 2000);
        if (r < 0)
            return r;
        memcpy(data + offset, page, static_cast<size_t>(std::min(pageSize, length - offset)));
    }
    const int rest = length % pageSize;
    if (rest) {
        const int offset = (pages - 1) * pageSize;
        usleep(10000);
        r = libusb_control_transfer(handle, VendorInEeprom, 0xF3, static_cast<uint16_t>(EepromBase + offset), 0,
                                    data + offset, static_cast<uint16_t>(rest), 2000);
        if (r < 0)
            return r;
    }
    return 0;
}

int cyusb_download_fx2(libusb_device_handle* handle, const char* path, unsigned char request)
{
    FILE* file = fopen(path, "r");
    if (!file) {
        printf("File not found\n");
        return -1;
    }
    auto cpuReset = [&](unsigned char hold) {
        return libusb_control_transfer(handle, VendorOut, FirmwareRequest, Fx2CpuControl, 0, &hold, 1, 1000);
    };
    if (cpuReset(1) == 0) {
        printf("Error in control_transfer\n");
        fclose(file);
        return 0;
    }
    sleep(1);

    char line[600];
    unsigned char bytes[256];
    int total = 0;
    while (fgets(line, sizeof line, file)) {
        const size_t len = strcspn(line, "\r\n");
        // Shortest record: colon, length, address, type and checksum.
        if (len < 11 || line[0] != ':')
            continue;
        if (line[8] == '1')
            break;
        const int count = hexValue(line + 1, 2);
        const int address = hexValue(line + 3, 4);
        int n = 0;
        while (n < count && 9 + 2 * static_cast<size_t>(n) + 2 <= len) {
            bytes[n] = static_cast<unsigned char>(hexValue(line + 9 + 2 * n, 2));
            ++n;
        }
        if (libusb_control_transfer(handle, VendorOut, request, static_cast<uint16_t>(address), 0, bytes,
                                    static_cast<uint16_t>(n), 1000)
            == 0) {
            printf("Error in control_transfer\n");
            fclose(file);
            return 0;
        }
        total += n;
    }
    fclose(file);
    printf("Total bytes downloaded = %d\n", total);
    sleep(1);
    cpuReset(0);
    return 0;
}

int cyusb_download_fx3(libusb_device_handle* handle, const char* path)
{
    FILE* file = fopen(path, "rb");
    if (!file) {
        printf("File not found\n");
        return -1;
    }
    printf("File successfully opened\n");
    checksum = 0;
    std::vector<unsigned char> image;
    unsigned char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, file)) > 0)
        image.insert(image.end(), chunk, chunk + got);
    fclose(file);

    if (image.size() < 2 || image[0] != 'C' || image[1] != 'Y') {
        printf("Image does not have 'CY' at start. aborting\n");
        return -2;
    }
    if (image.size() < 4 || (image[2] & 1)) {
        printf("Image does not contain executable code\n");
        return -3;
    }
    if (image[3] != 0xB0) {
        printf("Not a normal FW binary with checksum\n");
        return -4;
    }

    size_t pos = 4;
    auto truncated = [&] {
        printf("Image is truncated\n");
        return -6;
    };
    uint32_t entry = 0;
    for (;;) {
        if (pos + 8 > image.size())
            return truncated();
        const uint32_t words = littleEndian32(&image[pos]);
        uint32_t address = littleEndian32(&image[pos + 4]);
        pos += 8;
        if (words == 0) {
            entry = address;
            break;
        }
        const size_t bytes = size_t(words) * 4;
        if (pos + bytes > image.size())
            return truncated();
        for (size_t w = 0; w < words; ++w)
            checksum += littleEndian32(&image[pos + w * 4]);
        for (size_t done = 0; done < bytes;) {
            const int piece = static_cast<int>(std::min<size_t>(Fx3Piece, bytes - done));
            const int r = libusb_control_transfer(handle, VendorOut, FirmwareRequest,
                                                  static_cast<uint16_t>(address & 0xFFFF),
                                                  static_cast<uint16_t>(address >> 16), &image[pos + done],
                                                  static_cast<uint16_t>(piece), 1000);
            if (r != piece)
                printf("Error in control_transfer\n");
            address += static_cast<uint32_t>(piece);
            done += static_cast<size_t>(piece);
        }
        pos += bytes;
    }
    if (pos + 4 > image.size())
        return truncated();
    if (littleEndian32(&image[pos]) != checksum) {
        printf("Error in checksum\n");
        return -5;
    }
    sleep(1);
    const int r = libusb_control_transfer(handle, VendorOut, FirmwareRequest, static_cast<uint16_t>(entry & 0xFFFF),
                                          static_cast<uint16_t>(entry >> 16), nullptr, 0, 1000);
    if (r != 0) {
        printf("Error in control_transfer\n");
        return r;
    }
    return 0;
}
