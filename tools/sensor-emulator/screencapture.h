#pragma once

#include "scene.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Looks at the X screen ($DISPLAY) on a thread of its own, a few dozen times a second, and keeps
// what it saw with the time it saw it, so that the projector and the emulated users can be shown
// the screen as it was a latency ago. Each look keeps the luminance at half resolution and, for
// each colour asked for, where the largest patch of that colour lies.
class ScreenCapture
{
public:
    using Clock = std::chrono::steady_clock;

    struct Sighting {
        bool found = false;
        double x = 0, y = 0;  // centroid in scene screen pixels
        int area = 0;         // desktop pixels of the patch
    };
    struct Look {
        Clock::time_point at;  // the screen showed this no later than here
        uint64_t sequence = 0;
        int desktopWidth = 0, desktopHeight = 0;
        int width = 0, height = 0;  // of the luminance plane
        int scale = 2;              // desktop pixels per luminance pixel, each way
        std::vector<uint8_t> luminance;
        std::vector<Sighting> sightings;  // one per colour, in the order given
    };
    struct ColourMatch {
        Scene::Colour colour;
        int tolerance;
    };

    // Positions of sightings are given on a screen of screenWidth x screenHeight (the scene's),
    // onto which the X screen is stretched.
    ScreenCapture(std::vector<ColourMatch> colours, double rateHz, double screenWidth, double screenHeight);
    ~ScreenCapture();
    ScreenCapture(const ScreenCapture&) = delete;
    ScreenCapture& operator=(const ScreenCapture&) = delete;

    // The newest look taken no later than t; null before the first or without an X screen.
    std::shared_ptr<const Look> seenAt(Clock::time_point t) const;
    // How far back seenAt is asked for; older looks are let go.
    void keepFor(Clock::duration span);

private:
    struct Connection;
    void run();
    bool connect(Connection& c, std::string& error);
    std::shared_ptr<Look> take(Connection& c);
    void analyse(Connection& c, const uint32_t* pixels, int stride, Look& look, const uint32_t masks[3]);

    const std::vector<ColourMatch> colours;
    const Clock::duration period;
    const double screenWidth, screenHeight;

    mutable std::mutex mu;
    std::condition_variable wake;
    bool stopping = false;
    Clock::duration keep{std::chrono::seconds(1)};
    std::deque<std::shared_ptr<const Look>> history;
    std::thread thread;
};
