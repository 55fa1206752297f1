#pragma once

#include <mutex>

struct xdo;

// The X server's pointer, driven through libxdo. One per process, never deleted.
class LinuxMouse {
public:
    static LinuxMouse* instance();

    void LeftPress();
    void LeftRelease();
    void MiddlePress();
    void MiddleRelease();
    void RightPress();
    void RightRelease();
    void WheelUp();
    void WheelDown();
    // Whole pixels, truncated, on screen 0.
    void Move(double x, double y);
    // The long-press click of both pointer outputs: move there, press and release the right button.
    void RightClickAt(double x, double y);

private:
    LinuxMouse() = default;
    ~LinuxMouse();
    LinuxMouse(const LinuxMouse&) = delete;
    LinuxMouse& operator=(const LinuxMouse&) = delete;

    // Connects on first use, and again at the next use while the server cannot be reached.
    // Called with the lock held.
    bool connected();
    void button(int number, bool press);
    void click(int number);

    // The image thread and the main thread both drive the pointer; one Xlib connection
    // may not be used by two threads at once.
    std::mutex lock;
    struct xdo* handle = nullptr;
};
