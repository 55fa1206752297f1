#pragma once

// A thin process-global layer over libusb-1.0: the device list of cyusb.conf, the table
// of open devices, fixed time-outs, the bridge's EEPROM and the FX2/FX3 firmware loaders.
// Not thread-safe; it serves one client.

#include <libusb.h>

int cyusb_open(const char* path);
int cyusb_open(unsigned short vid, unsigned short pid);
void cyusb_close();
// Enumerates again; with open false only the count is new and the table stays as it was.
int renumerate(bool open);
libusb_device_handle* cyusb_gethandle(int index);
unsigned short cyusb_getvendor(libusb_device_handle* handle);
unsigned short cyusb_getproduct(libusb_device_handle* handle);
void cyusb_error(int code);

int cyusb_get_busnumber(libusb_device_handle* handle);
int cyusb_get_devaddr(libusb_device_handle* handle);
int cyusb_get_max_packet_size(libusb_device_handle* handle, unsigned char endpoint);
int cyusb_get_max_iso_packet_size(libusb_device_handle* handle, unsigned char endpoint);
int cyusb_get_configuration(libusb_device_handle* handle, int* config);
int cyusb_set_configuration(libusb_device_handle* handle, int config);
int cyusb_claim_interface(libusb_device_handle* handle, int interface);
int cyusb_release_interface(libusb_device_handle* handle, int interface);
int cyusb_set_interface_alt_setting(libusb_device_handle* handle, int interface, int altsetting);
int cyusb_clear_halt(libusb_device_handle* handle, unsigned char endpoint);
int cyusb_reset_device(libusb_device_handle* handle);
int cyusb_kernel_driver_active(libusb_device_handle* handle, int interface);
int cyusb_detach_kernel_driver(libusb_device_handle* handle, int interface);
int cyusb_attach_kernel_driver(libusb_device_handle* handle, int interface);
int cyusb_get_device_descriptor(libusb_device_handle* handle, libusb_device_descriptor* desc);
int cyusb_get_active_config_descriptor(libusb_device_handle* handle, libusb_config_descriptor** config);
int cyusb_get_config_descriptor(libusb_device_handle* handle, unsigned char index,
                                libusb_config_descriptor** config);
int cyusb_get_config_descriptor_by_value(libusb_device_handle* handle, unsigned char value,
                                         libusb_config_descriptor** config);
void cyusb_free_config_descriptor(libusb_config_descriptor* config);
int cyusb_get_string_descriptor_ascii(libusb_device_handle* handle, unsigned char index, unsigned char* data,
                                      int length);
int cyusb_get_descriptor(libusb_device_handle* handle, unsigned char type, unsigned char index,
                         unsigned char* data, int length);
int cyusb_get_string_descriptor(libusb_device_handle* handle, unsigned char index, unsigned short langid,
                                unsigned char* data, int length);
int cyusb_control_transfer(libusb_device_handle* handle, unsigned char requestType, unsigned char request,
                           unsigned short value, unsigned short index, unsigned char* data,
                           unsigned short length, unsigned int timeout);
int cyusb_bulk_transfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data, int length,
                        int* transferred, unsigned int timeout);
int cyusb_interrupt_transfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                             int length, int* transferred, unsigned int timeout);

int cyusb_writeToEeprom(libusb_device_handle* handle, unsigned char* data, int length);
int cyusb_readFromEeprom(libusb_device_handle* handle, unsigned char* data, int length);
int cyusb_download_fx2(libusb_device_handle* handle, const char* path, unsigned char request);
int cyusb_download_fx3(libusb_device_handle* handle, const char* path);
