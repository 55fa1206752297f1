#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

// One slot of the ring between the USB thread and the image thread. free is the
// hand-over: the USB thread writes data and size, then clears it; the image thread sets
// it again once the frame callback has returned.
struct imageBuffer {
    unsigned char* data = nullptr;
    int size = 0;
    std::atomic<bool> free{true};
};

// Wakes the image thread as soon as the USB thread has handed a buffer over, instead of at
// its next look. It carries no data: the buffers' free flags stay the hand-over, so a ring
// that comes while the image thread is busy only makes its next wait return at once.
class FrameDoorbell {
public:
    void ring()
    {
        {
            std::lock_guard<std::mutex> hold(lock);
            rung = true;
        }
        wake.notify_one();
    }

    // Returns when rung since the last wait, or after timeout.
    void wait(std::chrono::microseconds timeout)
    {
        std::unique_lock<std::mutex> hold(lock);
        wake.wait_for(hold, timeout, [this] { return rung; });
        rung = false;
    }

private:
    std::mutex lock;
    std::condition_variable wake;
    bool rung = false;
};
