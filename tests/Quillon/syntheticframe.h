#pragma once

// Synthetic sensor frames for the stylus tests: a dark, noisy background, fixed bright
// areas that the engine should learn away, and saturated Gaussian spots at sub-pixel centres.

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

struct Spot {
    double x, y;
    double diameter; // of the part above the detection threshold
};

struct BrightArea {
    int x, y, width, height;
    int level;
};

class SyntheticFrames {
public:
    static constexpr int Width = 752;
    static constexpr int Height = 480;
    // Clipped at 255: the tip saturates the sensor well past its visible edge.
    static constexpr double Amplitude = 2550.0;
    static constexpr double Threshold = 230.0;

    std::vector<BrightArea> areas;
    int noiseMax = 40;

    explicit SyntheticFrames(unsigned seed = 7) : rng(seed) {}

    std::vector<unsigned char> make(const std::vector<Spot>& spots)
    {
        std::vector<unsigned char> frame(std::size_t(Width) * Height);
        std::uniform_int_distribution<int> noise(0, noiseMax);
        for (auto& p : frame)
            p = static_cast<unsigned char>(noise(rng));
        for (const BrightArea& a : areas) {
            for (int y = a.y; y < a.y + a.height; ++y)
                for (int x = a.x; x < a.x + a.width; ++x)
                    frame[std::size_t(y) * Width + x] = static_cast<unsigned char>(std::min(255, a.level + noise(rng) / 8));
        }
        for (const Spot& s : spots)
            draw(frame, s);
        return frame;
    }

    static void draw(std::vector<unsigned char>& frame, const Spot& s)
    {
        // Radius at which the profile crosses the threshold is half the diameter.
        const double sigma = (s.diameter / 2.0) / std::sqrt(2.0 * std::log(Amplitude / Threshold));
        addSpot(frame, s.x, s.y, sigma, Amplitude);
    }

    // Adds a Gaussian profile of the given peak, clipped at 255, to a frame of the sensor's size.
    static void addSpot(std::vector<unsigned char>& frame, double cx, double cy, double sigma, double peak)
    {
        const int reach = static_cast<int>(std::ceil(4 * sigma)) + 1;
        for (int y = int(cy) - reach; y <= int(cy) + reach; ++y) {
            for (int x = int(cx) - reach; x <= int(cx) + reach; ++x) {
                if (x < 0 || y < 0 || x >= Width || y >= Height)
                    continue;
                const double r2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
                unsigned char& p = frame[std::size_t(y) * Width + x];
                p = static_cast<unsigned char>(std::min(255.0, p + peak * std::exp(-r2 / (2 * sigma * sigma))));
            }
        }
    }

private:
    std::mt19937 rng;
};
