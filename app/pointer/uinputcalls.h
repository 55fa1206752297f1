#pragma once

// The kernel calls that create and remove a uinput device. Touch makes its device
// through this object, so that another implementation can stand in where no
// /dev/uinput exists; events themselves are written straight to the descriptor.
class UinputCalls {
public:
    virtual ~UinputCalls() = default;

    // Returns a descriptor, or a negative value on failure, as open(2).
    virtual int openDevice(const char* path, int flags);
    // ioctl(2) with an int argument; requests without one ignore it.
    virtual int control(int fd, unsigned long request, int value);
    virtual void closeDevice(int fd);
};
