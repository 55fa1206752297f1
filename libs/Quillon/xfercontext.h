#pragma once

#include <libusb.h>

#include <atomic>

// One transfer kept in flight. received and done are written by the completion callback
// on the event thread and read by whoever waits for it.
struct xferContext {
    unsigned char* data = nullptr;
    std::atomic<int> received{0};
    std::atomic<int> done{1};
    libusb_transfer* transfer = nullptr;
    // Geometry the transfer was submitted for; a frame of an older one is not delivered.
    int geometry = 0;
};
