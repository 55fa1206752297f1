#pragma once

// Finger scenes for the box engine tests, described by what is in them: a screen seen by the
// sensor through a projective map and the factory lens, a dark laser-curtain background with
// noise, fixed reflections, extra ambient light on a patch, and finger spots at screen positions.

#include "calibration.h"
#include "evector.h"
#include "lensmodel.h"
#include "screenprojection.h"
#include "syntheticframe.h"

#include <opencv2/core.hpp>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <string>
#include <vector>

struct Finger {
    double screenX, screenY;
    double diameter = 10; // sensor pixels, about four standard deviations of the profile
    double peak = 190;    // above the background
};

// A fixed bright spot on the surface, in sensor pixels.
struct Reflection {
    double x, y, diameter, peak;
};

class FingerScene {
public:
    static constexpr int Width = SyntheticFrames::Width;
    static constexpr int Height = SyntheticFrames::Height;

    static constexpr double ScreenWidth = 1920, ScreenHeight = 1080;
    // Sensor positions of the screen's top left, top right, bottom right and bottom left.
    // The top edge is the longer one: the camera sits above the screen's top.
    std::array<double, 8> corners{40, 30, 712, 30, 684, 452, 68, 452};
    int background = 12;
    int noise = 6; // uniform, 0..noise on top of the background
    std::vector<Reflection> reflections;
    cv::Rect ambientArea; // extra ambient light, in sensor pixels
    int ambient = 0;

    explicit FingerScene(unsigned seed = 3) : rng(seed) {}

    const ScreenProjection& projection()
    {
        if (!projector) {
            LensModel lens;
            std::string error;
            lens.loadFiles(std::string(VELORA_SOURCE_DIR) + "/config/intrinsic.xml",
                           std::string(VELORA_SOURCE_DIR) + "/config/distortion.xml", error);
            projector = std::make_unique<ScreenProjection>(ScreenWidth, ScreenHeight, corners.data(), lens);
        }
        return *projector;
    }

    EVector sensorOf(double sx, double sy)
    {
        double x = 0, y = 0;
        projection().toSensor(sx, sy, x, y);
        return EVector(x, y);
    }
    EVector sensorOf(const Finger& f) { return sensorOf(f.screenX, f.screenY); }

    // What a calibration procedure would have recorded: the dots of a 5 by 5 layout, seen
    // where the scene puts them.
    std::unique_ptr<Calibration> calibration()
    {
        auto c =
            std::make_unique<Calibration>(5, 5, std::vector<EVector>(25), std::vector<EVector>(), 0.05, 0.05, 0, false, true);
        const std::vector<EVector> dst = c->calcDstPoints(ScreenWidth, ScreenHeight);
        for (std::size_t i = 0; i < dst.size(); ++i)
            c->srcPoints[i] = sensorOf(dst[i].x, dst[i].y);
        return c;
    }

    std::vector<unsigned char> frame(const std::vector<Finger>& fingers = {})
    {
        std::vector<unsigned char> f(std::size_t(Width) * Height);
        std::uniform_int_distribution<int> n(0, noise);
        for (auto& p : f)
            p = static_cast<unsigned char>(background + n(rng));
        if (ambient != 0) {
            const cv::Rect a = ambientArea & cv::Rect(0, 0, Width, Height);
            for (int y = a.y; y < a.y + a.height; ++y)
                for (int x = a.x; x < a.x + a.width; ++x) {
                    unsigned char& p = f[std::size_t(y) * Width + x];
                    p = static_cast<unsigned char>(std::clamp(p + ambient, 0, 255));
                }
        }
        for (const Reflection& r : reflections)
            spot(f, r.x, r.y, r.diameter, r.peak);
        for (const Finger& g : fingers) {
            const EVector s = sensorOf(g);
            spot(f, s.x, s.y, g.diameter, g.peak);
        }
        return f;
    }

    // The diameter spans about four standard deviations of the profile.
    static void spot(std::vector<unsigned char>& f, double cx, double cy, double diameter, double peak)
    {
        SyntheticFrames::addSpot(f, cx, cy, diameter / 4.0, peak);
    }

private:
    std::mt19937 rng;
    std::unique_ptr<ScreenProjection> projector;
};
