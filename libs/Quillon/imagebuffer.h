#pragma once

#include <atomic>

// One slot of the ring between the USB thread and the image thread. free is the
// hand-over: the USB thread writes data and size, then clears it; the image thread sets
// it again once the frame callback has returned.
struct imageBuffer {
    unsigned char* data = nullptr;
    int size = 0;
    std::atomic<bool> free{true};
};
