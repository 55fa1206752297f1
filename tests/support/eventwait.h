#pragma once
#include <QCoreApplication>

#include <chrono>
#include <functional>
#include <thread>

// Runs the main thread's events until the condition holds; false when the time runs out.
inline bool waitFor(const std::function<bool()>& done, int timeoutMs = 10000)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
