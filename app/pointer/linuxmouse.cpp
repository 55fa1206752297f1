#include "linuxmouse.h"

#include <QDebug>
#include <QThread>

extern "C" {
#include <xdo.h>
}

#include <algorithm>
#include <cmath>

LinuxMouse* LinuxMouse::instance()
{
    static LinuxMouse* mouse = new LinuxMouse();
    return mouse;
}

LinuxMouse::~LinuxMouse()
{
    if (handle)
        xdo_free(handle);
}

bool LinuxMouse::connected()
{
    if (!handle)
        handle = xdo_new(nullptr);
    return handle != nullptr;
}

void LinuxMouse::button(int number, bool press)
{
    std::lock_guard<std::mutex> hold(lock);
    if (!connected())
        return;
    if (press)
        xdo_mouse_down(handle, CURRENTWINDOW, number);
    else
        xdo_mouse_up(handle, CURRENTWINDOW, number);
}

void LinuxMouse::click(int number)
{
    button(number, true);
    QThread::msleep(50);
    button(number, false);
}

void LinuxMouse::LeftPress() { button(1, true); }
void LinuxMouse::LeftRelease() { button(1, false); }
void LinuxMouse::MiddlePress() { button(2, true); }
void LinuxMouse::MiddleRelease() { button(2, false); }
void LinuxMouse::RightPress() { button(3, true); }
void LinuxMouse::RightRelease() { button(3, false); }
void LinuxMouse::RightClickAt(double x, double y)
{
    Move(x, y);
    RightPress();
    RightRelease();
}

void LinuxMouse::WheelUp() { click(4); }
void LinuxMouse::WheelDown() { click(5); }

void LinuxMouse::Move(double x, double y)
{
    qDebug().nospace() << "Mouse move to " << x << "/ " << y;
    std::lock_guard<std::mutex> hold(lock);
    if (!connected())
        return;
    // Far outside any desktop, yet inside int.
    const auto pixel = [](double v) { return static_cast<int>(std::trunc(std::clamp(v, -1e6, 1e6))); };
    xdo_move_mouse(handle, pixel(x), pixel(y), 0);
}
