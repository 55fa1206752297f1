#include "uinputcalls.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

int UinputCalls::openDevice(const char* path, int flags)
{
    return ::open(path, flags);
}

int UinputCalls::control(int fd, unsigned long request, int value)
{
    return ::ioctl(fd, request, value);
}

void UinputCalls::closeDevice(int fd)
{
    ::close(fd);
}
