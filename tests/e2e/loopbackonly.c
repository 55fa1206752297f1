// Preloaded into the OSC receiver that the TUIO test starts. The receiver only knows how to
// listen on every address; with this, its wildcard bind becomes one on the loopback address,
// so that nothing outside the machine can reach it.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

int bind(int fd, const struct sockaddr* address, socklen_t length)
{
    int (*real)(int, const struct sockaddr*, socklen_t) =
        (int (*)(int, const struct sockaddr*, socklen_t))dlsym(RTLD_NEXT, "bind");
    if (address && address->sa_family == AF_INET && length >= sizeof(struct sockaddr_in)) {
        struct sockaddr_in loopback;
        memcpy(&loopback, address, sizeof loopback);
        if (loopback.sin_addr.s_addr == htonl(INADDR_ANY)) {
            loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            return real(fd, (const struct sockaddr*)&loopback, sizeof loopback);
        }
    } else if (address && address->sa_family == AF_INET6 && length >= sizeof(struct sockaddr_in6)) {
        struct sockaddr_in6 loopback;
        memcpy(&loopback, address, sizeof loopback);
        if (memcmp(&loopback.sin6_addr, &in6addr_any, sizeof in6addr_any) == 0) {
            loopback.sin6_addr = in6addr_loopback;
            return real(fd, (const struct sockaddr*)&loopback, sizeof loopback);
        }
    }
    return real(fd, address, length);
}
