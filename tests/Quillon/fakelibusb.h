#pragma once
// A stand-in for the USB device behind libusb-1.0, defined in the test program so that
// it takes the place of the library's own functions. It records every control request, as
// written before the capture threads run; those threads' asynchronous transfers and
// streaming are left to the emulated sensor's tests. Include it in one source file of a
// test program only.

#include <libusb.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace fakeusb {

struct Request {
    int requestType;
    int request;
    int value;
    int index;
    std::vector<unsigned char> data;
};

struct Device {
    std::mutex lock;
    std::vector<Request> requests;
    int present = 1;
};

inline Device& device()
{
    static Device d;
    return d;
}

inline char deviceToken;
inline char handleToken;

inline libusb_device* theDevice()
{
    return reinterpret_cast<libusb_device*>(&deviceToken);
}

inline std::vector<Request> requests()
{
    std::lock_guard<std::mutex> hold(device().lock);
    return device().requests;
}

inline void clearRequests()
{
    std::lock_guard<std::mutex> hold(device().lock);
    device().requests.clear();
}

} // namespace fakeusb

extern "C" {

int libusb_init(libusb_context**) { return 0; }
void libusb_exit(libusb_context*) {}

ssize_t libusb_get_device_list(libusb_context*, libusb_device*** list)
{
    const int n = fakeusb::device().present;
    auto** l = static_cast<libusb_device**>(calloc(static_cast<size_t>(n) + 1, sizeof(libusb_device*)));
    for (int i = 0; i < n; ++i)
        l[i] = fakeusb::theDevice();
    *list = l;
    return n;
}

void libusb_free_device_list(libusb_device** list, int) { free(list); }

int libusb_get_device_descriptor(libusb_device*, libusb_device_descriptor* d)
{
    memset(d, 0, sizeof *d);
    d->idVendor = 0x1209;
    d->idProduct = 0x7E1A;
    return 0;
}

int libusb_open(libusb_device*, libusb_device_handle** handle)
{
    *handle = reinterpret_cast<libusb_device_handle*>(&fakeusb::handleToken);
    return 0;
}

void libusb_close(libusb_device_handle*) {}
uint8_t libusb_get_bus_number(libusb_device*) { return 1; }
uint8_t libusb_get_device_address(libusb_device*) { return 7; }
libusb_device* libusb_get_device(libusb_device_handle*) { return fakeusb::theDevice(); }
int libusb_kernel_driver_active(libusb_device_handle*, int) { return 0; }
int libusb_claim_interface(libusb_device_handle*, int) { return 0; }
int libusb_clear_halt(libusb_device_handle*, unsigned char) { return 0; }
const char* libusb_error_name(int) { return "LIBUSB_ERROR"; }

int libusb_get_config_descriptor(libusb_device*, uint8_t, libusb_config_descriptor** config)
{
    // An OUT endpoint first: only the IN one may be taken.
    static libusb_endpoint_descriptor endpoints[2] = {};
    endpoints[0].bEndpointAddress = 0x01;
    endpoints[1].bEndpointAddress = 0x82;
    static libusb_interface_descriptor setting = {};
    setting.bNumEndpoints = 2;
    setting.endpoint = endpoints;
    static libusb_interface interface = {};
    interface.altsetting = &setting;
    interface.num_altsetting = 1;
    static libusb_config_descriptor c = {};
    c.bNumInterfaces = 1;
    c.interface = &interface;
    *config = &c;
    return 0;
}

void libusb_free_config_descriptor(libusb_config_descriptor*) {}

int libusb_control_transfer(libusb_device_handle*, uint8_t requestType, uint8_t request, uint16_t value,
                            uint16_t index, unsigned char* data, uint16_t length, unsigned int)
{
    std::lock_guard<std::mutex> hold(fakeusb::device().lock);
    fakeusb::device().requests.push_back(
        {requestType, request, value, index, std::vector<unsigned char>(data, data + length)});
    return length;
}

} // extern "C"
