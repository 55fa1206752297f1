// The libusb-1.0 entry points, answered by the emulated bus. Loaded in front of the real
// library (LD_PRELOAD) these are the ones the program's calls bind to.
#include "usbemulator.h"

#include <libusb.h>

#include <cstdlib>
#include <cstring>

#define EMU_EXPORT extern "C" __attribute__((visibility("default")))

namespace {
UsbEmulator& emu()
{
    return UsbEmulator::instance();
}

struct ConfigBlock {
    libusb_config_descriptor config;
    libusb_interface interface;
    libusb_interface_descriptor setting;
    libusb_endpoint_descriptor endpoint;
};

int makeConfig(libusb_device* dev, libusb_config_descriptor** out)
{
    if (!emu().isDevice(dev) || !out) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    auto* b = new ConfigBlock{};
    b->endpoint = {LIBUSB_DT_ENDPOINT_SIZE, LIBUSB_DT_ENDPOINT, emu().streamEndpoint(), LIBUSB_TRANSFER_TYPE_BULK,
                   512, 0, 0, 0, nullptr, 0};
    b->setting = {LIBUSB_DT_INTERFACE_SIZE, LIBUSB_DT_INTERFACE, 0, 0, 1, LIBUSB_CLASS_VENDOR_SPEC, 0, 0, 0,
                  &b->endpoint, nullptr, 0};
    b->interface = {&b->setting, 1};
    b->config = {LIBUSB_DT_CONFIG_SIZE, LIBUSB_DT_CONFIG, LIBUSB_DT_CONFIG_SIZE + LIBUSB_DT_INTERFACE_SIZE + LIBUSB_DT_ENDPOINT_SIZE,
                 1, 1, 0, 0x80, 50, &b->interface, nullptr, 0};
    *out = &b->config;
    return LIBUSB_SUCCESS;
}

const struct {
    int code;
    const char* name;
    const char* text;
} errors[] = {
    {LIBUSB_SUCCESS, "LIBUSB_SUCCESS / LIBUSB_TRANSFER_COMPLETED", "Success"},
    {LIBUSB_ERROR_IO, "LIBUSB_ERROR_IO", "Input/Output Error"},
    {LIBUSB_ERROR_INVALID_PARAM, "LIBUSB_ERROR_INVALID_PARAM", "Invalid parameter"},
    {LIBUSB_ERROR_ACCESS, "LIBUSB_ERROR_ACCESS", "Access denied (insufficient permissions)"},
    {LIBUSB_ERROR_NO_DEVICE, "LIBUSB_ERROR_NO_DEVICE", "No such device (it may have been disconnected)"},
    {LIBUSB_ERROR_NOT_FOUND, "LIBUSB_ERROR_NOT_FOUND", "Entity not found"},
    {LIBUSB_ERROR_BUSY, "LIBUSB_ERROR_BUSY", "Resource busy"},
    {LIBUSB_ERROR_TIMEOUT, "LIBUSB_ERROR_TIMEOUT", "Operation timed out"},
    {LIBUSB_ERROR_OVERFLOW, "LIBUSB_ERROR_OVERFLOW", "Overflow"},
    {LIBUSB_ERROR_PIPE, "LIBUSB_ERROR_PIPE", "Pipe error"},
    {LIBUSB_ERROR_INTERRUPTED, "LIBUSB_ERROR_INTERRUPTED", "System call interrupted (perhaps due to signal)"},
    {LIBUSB_ERROR_NO_MEM, "LIBUSB_ERROR_NO_MEM", "Insufficient memory"},
    {LIBUSB_ERROR_NOT_SUPPORTED, "LIBUSB_ERROR_NOT_SUPPORTED", "Operation not supported or unimplemented on this platform"},
    {LIBUSB_ERROR_OTHER, "LIBUSB_ERROR_OTHER", "Other error"},
};
} // namespace

EMU_EXPORT int LIBUSB_CALL libusb_init(libusb_context** ctx)
{
    return emu().init(ctx);
}

EMU_EXPORT void LIBUSB_CALL libusb_exit(libusb_context*)
{
    emu().exit();
}

EMU_EXPORT void LIBUSB_CALL libusb_set_debug(libusb_context*, int) {}

EMU_EXPORT int LIBUSB_CALL libusb_set_option(libusb_context*, enum libusb_option, ...)
{
    return LIBUSB_SUCCESS;
}

EMU_EXPORT const struct libusb_version* LIBUSB_CALL libusb_get_version(void)
{
    static const libusb_version version = {1, 0, 26, 0, "", "emulated"};
    return &version;
}

EMU_EXPORT int LIBUSB_CALL libusb_has_capability(uint32_t capability)
{
    return capability == LIBUSB_CAP_HAS_CAPABILITY;
}

EMU_EXPORT const char* LIBUSB_CALL libusb_error_name(int code)
{
    for (const auto& e : errors) {
        if (e.code == code) {
            return e.name;
        }
    }
    return "**UNKNOWN**";
}

EMU_EXPORT const char* LIBUSB_CALL libusb_strerror(int code)
{
    for (const auto& e : errors) {
        if (e.code == code) {
            return e.text;
        }
    }
    return "Unknown error";
}

EMU_EXPORT int LIBUSB_CALL libusb_setlocale(const char*)
{
    return LIBUSB_SUCCESS;
}

EMU_EXPORT ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context*, libusb_device*** list)
{
    return list ? emu().deviceList(list) : static_cast<ssize_t>(LIBUSB_ERROR_INVALID_PARAM);
}

EMU_EXPORT void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int)
{
    std::free(list);
}

EMU_EXPORT libusb_device* LIBUSB_CALL libusb_ref_device(libusb_device* dev)
{
    return dev;
}

EMU_EXPORT void LIBUSB_CALL libusb_unref_device(libusb_device*) {}

EMU_EXPORT int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* dev, struct libusb_device_descriptor* desc)
{
    if (!emu().isDevice(dev) || !desc) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    uint8_t raw[18];
    if (emu().descriptor(LIBUSB_DT_DEVICE, 0, raw, sizeof raw) != 18) {
        return LIBUSB_ERROR_OTHER;
    }
    desc->bLength = raw[0];
    desc->bDescriptorType = raw[1];
    desc->bcdUSB = static_cast<uint16_t>(raw[2] | raw[3] << 8);
    desc->bDeviceClass = raw[4];
    desc->bDeviceSubClass = raw[5];
    desc->bDeviceProtocol = raw[6];
    desc->bMaxPacketSize0 = raw[7];
    desc->idVendor = static_cast<uint16_t>(raw[8] | raw[9] << 8);
    desc->idProduct = static_cast<uint16_t>(raw[10] | raw[11] << 8);
    desc->bcdDevice = static_cast<uint16_t>(raw[12] | raw[13] << 8);
    desc->iManufacturer = raw[14];
    desc->iProduct = raw[15];
    desc->iSerialNumber = raw[16];
    desc->bNumConfigurations = raw[17];
    return LIBUSB_SUCCESS;
}

EMU_EXPORT int LIBUSB_CALL libusb_get_config_descriptor(libusb_device* dev, uint8_t index, libusb_config_descriptor** config)
{
    return index == 0 ? makeConfig(dev, config) : LIBUSB_ERROR_NOT_FOUND;
}

EMU_EXPORT int LIBUSB_CALL libusb_get_active_config_descriptor(libusb_device* dev, libusb_config_descriptor** config)
{
    return makeConfig(dev, config);
}

EMU_EXPORT int LIBUSB_CALL libusb_get_config_descriptor_by_value(libusb_device* dev, uint8_t value, libusb_config_descriptor** config)
{
    return value == 1 ? makeConfig(dev, config) : LIBUSB_ERROR_NOT_FOUND;
}

EMU_EXPORT void LIBUSB_CALL libusb_free_config_descriptor(libusb_config_descriptor* config)
{
    delete reinterpret_cast<ConfigBlock*>(config);
}

EMU_EXPORT uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device*)
{
    return 1;
}

EMU_EXPORT uint8_t LIBUSB_CALL libusb_get_port_number(libusb_device*)
{
    return 1;
}

EMU_EXPORT int LIBUSB_CALL libusb_get_port_numbers(libusb_device*, uint8_t* ports, int length)
{
    if (length < 1) {
        return LIBUSB_ERROR_OVERFLOW;
    }
    ports[0] = 1;
    return 1;
}

EMU_EXPORT libusb_device* LIBUSB_CALL libusb_get_parent(libusb_device*)
{
    return nullptr;
}

EMU_EXPORT uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device*)
{
    return 7;
}

EMU_EXPORT int LIBUSB_CALL libusb_get_device_speed(libusb_device*)
{
    return LIBUSB_SPEED_HIGH;
}

EMU_EXPORT int LIBUSB_CALL libusb_get_max_packet_size(libusb_device* dev, unsigned char endpoint)
{
    if (!emu().isDevice(dev)) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    return endpoint == emu().streamEndpoint() ? 512 : LIBUSB_ERROR_NOT_FOUND;
}

EMU_EXPORT int LIBUSB_CALL libusb_get_max_iso_packet_size(libusb_device* dev, unsigned char endpoint)
{
    return libusb_get_max_packet_size(dev, endpoint);
}

EMU_EXPORT int LIBUSB_CALL libusb_open(libusb_device* dev, libusb_device_handle** handle)
{
    return emu().open(dev, handle);
}

EMU_EXPORT void LIBUSB_CALL libusb_close(libusb_device_handle* handle)
{
    emu().close(handle);
}

EMU_EXPORT libusb_device* LIBUSB_CALL libusb_get_device(libusb_device_handle* handle)
{
    return handle ? handle->device : nullptr;
}

EMU_EXPORT libusb_device_handle* LIBUSB_CALL libusb_open_device_with_vid_pid(libusb_context*, uint16_t vendor, uint16_t product)
{
    return emu().openByIds(vendor, product);
}

EMU_EXPORT int LIBUSB_CALL libusb_get_configuration(libusb_device_handle* handle, int* config)
{
    int r = emu().check(handle);
    if (r == LIBUSB_SUCCESS && config) {
        *config = 1;
    }
    return r;
}

EMU_EXPORT int LIBUSB_CALL libusb_set_configuration(libusb_device_handle* handle, int config)
{
    int r = emu().check(handle);
    return r ? r : (config == 1 || config == -1) ? LIBUSB_SUCCESS : LIBUSB_ERROR_NOT_FOUND;
}

EMU_EXPORT int LIBUSB_CALL libusb_claim_interface(libusb_device_handle* handle, int number)
{
    int r = emu().check(handle);
    return r ? r : number == 0 ? LIBUSB_SUCCESS : LIBUSB_ERROR_NOT_FOUND;
}

EMU_EXPORT int LIBUSB_CALL libusb_release_interface(libusb_device_handle* handle, int number)
{
    return libusb_claim_interface(handle, number);
}

EMU_EXPORT int LIBUSB_CALL libusb_set_interface_alt_setting(libusb_device_handle* handle, int number, int alternate)
{
    int r = emu().check(handle);
    return r ? r : (number == 0 && alternate == 0) ? LIBUSB_SUCCESS : LIBUSB_ERROR_NOT_FOUND;
}

EMU_EXPORT int LIBUSB_CALL libusb_clear_halt(libusb_device_handle* handle, unsigned char endpoint)
{
    return emu().clearHalt(handle, endpoint);
}

EMU_EXPORT int LIBUSB_CALL libusb_reset_device(libusb_device_handle* handle)
{
    return emu().check(handle);
}

EMU_EXPORT int LIBUSB_CALL libusb_kernel_driver_active(libusb_device_handle* handle, int)
{
    return emu().check(handle);
}

EMU_EXPORT int LIBUSB_CALL libusb_detach_kernel_driver(libusb_device_handle* handle, int)
{
    int r = emu().check(handle);
    return r ? r : LIBUSB_ERROR_NOT_FOUND;
}

EMU_EXPORT int LIBUSB_CALL libusb_attach_kernel_driver(libusb_device_handle* handle, int)
{
    int r = emu().check(handle);
    return r ? r : LIBUSB_ERROR_NOT_FOUND;
}

EMU_EXPORT int LIBUSB_CALL libusb_set_auto_detach_kernel_driver(libusb_device_handle* handle, int)
{
    return emu().check(handle);
}

EMU_EXPORT int LIBUSB_CALL libusb_control_transfer(libusb_device_handle* handle, uint8_t requestType, uint8_t request,
                                                   uint16_t value, uint16_t index, unsigned char* data, uint16_t length,
                                                   unsigned int)
{
    if (length > 0 && !data) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    return emu().controlSync(handle, requestType, request, value, index, data, length);
}

EMU_EXPORT int LIBUSB_CALL libusb_bulk_transfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                                                int length, int* transferred, unsigned int timeout)
{
    return emu().bulkSync(handle, endpoint, data, length, transferred, timeout);
}

EMU_EXPORT int LIBUSB_CALL libusb_interrupt_transfer(libusb_device_handle* handle, unsigned char, unsigned char*, int,
                                                     int* transferred, unsigned int)
{
    if (transferred) {
        *transferred = 0;
    }
    int r = emu().check(handle);
    return r ? r : LIBUSB_ERROR_NOT_FOUND;
}

EMU_EXPORT int LIBUSB_CALL libusb_get_string_descriptor_ascii(libusb_device_handle* handle, uint8_t index,
                                                              unsigned char* data, int length)
{
    if (int r = emu().check(handle)) {
        return r;
    }
    uint8_t raw[256];
    int n = emu().descriptor(LIBUSB_DT_STRING, index, raw, sizeof raw);
    if (n < 2 || index == 0) {
        return n < 0 ? n : LIBUSB_ERROR_PIPE;
    }
    int out = 0;
    for (int i = 2; i + 1 < n && out < length - 1; i += 2) {
        data[out++] = raw[i + 1] ? '?' : raw[i];
    }
    if (length > 0) {
        data[out] = 0;
    }
    return out;
}

EMU_EXPORT struct libusb_transfer* LIBUSB_CALL libusb_alloc_transfer(int isoPackets)
{
    return UsbEmulator::allocTransfer(isoPackets);
}

EMU_EXPORT void LIBUSB_CALL libusb_free_transfer(struct libusb_transfer* transfer)
{
    UsbEmulator::freeTransfer(transfer);
}

EMU_EXPORT int LIBUSB_CALL libusb_submit_transfer(struct libusb_transfer* transfer)
{
    return emu().submit(transfer);
}

EMU_EXPORT unsigned char* LIBUSB_CALL libusb_dev_mem_alloc(libusb_device_handle* handle, size_t length)
{
    return emu().deviceMemory(handle, length);
}

EMU_EXPORT int LIBUSB_CALL libusb_dev_mem_free(libusb_device_handle*, unsigned char* buffer, size_t)
{
    return emu().freeDeviceMemory(buffer);
}

EMU_EXPORT int LIBUSB_CALL libusb_cancel_transfer(struct libusb_transfer* transfer)
{
    return emu().cancel(transfer);
}

EMU_EXPORT int LIBUSB_CALL libusb_handle_events_timeout_completed(libusb_context*, struct timeval* tv, int* completed)
{
    return emu().handleEvents(tv, completed);
}

EMU_EXPORT int LIBUSB_CALL libusb_handle_events_timeout(libusb_context*, struct timeval* tv)
{
    return emu().handleEvents(tv, nullptr);
}

EMU_EXPORT int LIBUSB_CALL libusb_handle_events(libusb_context*)
{
    timeval tv{60, 0};
    return emu().handleEvents(&tv, nullptr);
}

EMU_EXPORT int LIBUSB_CALL libusb_handle_events_completed(libusb_context*, int* completed)
{
    timeval tv{60, 0};
    return emu().handleEvents(&tv, completed);
}

EMU_EXPORT void LIBUSB_CALL libusb_interrupt_event_handler(libusb_context*)
{
    emu().interruptEvents();
}

EMU_EXPORT int LIBUSB_CALL libusb_get_next_timeout(libusb_context*, struct timeval*)
{
    return 0;
}

EMU_EXPORT int LIBUSB_CALL libusb_hotplug_register_callback(libusb_context*, int, int, int, int, int,
                                                            libusb_hotplug_callback_fn, void*,
                                                            libusb_hotplug_callback_handle*)
{
    return LIBUSB_ERROR_NOT_SUPPORTED;
}

EMU_EXPORT void LIBUSB_CALL libusb_hotplug_deregister_callback(libusb_context*, libusb_hotplug_callback_handle) {}
