#pragma once

#include "scene.h"
#include "screencapture.h"
#include "screenprojection.h"

#include <cstdint>
#include <thread>
#include <vector>

// Window and binning as the imager registers set them, in full-resolution sensor pixels.
struct FrameGeometry {
    int x = 0, y = 0, width = 752, height = 480, binX = 1, binY = 1;
    int columns() const { return width / binX; }
    int rows() const { return height / binY; }
    int bytes() const { return columns() * rows(); }
};

struct SpotTruth {
    int id;
    Scene::SpotKind kind;
    double screenX, screenY;
    double sensorX, sensorY;  // full-resolution sensor pixel
    double imageX, imageY;    // pixel of the assembled frame after binning
    bool lit;
    double size, brightness;  // diameter in sensor pixels, peak over the background
};

struct RenderState {
    double time = 0;          // seconds since the start request
    uint64_t frame = 0;
    int exposure = 50;
    bool laserOn = false;
    bool pictureShown = false;  // the filter lets the projected picture through
    // With the picture shown: the X screen as the projector shows it; null for the flat level.
    const ScreenCapture::Look* screen = nullptr;
    // Spots besides the strokes' (the emulated users' presses), drawn and reported alike.
    const std::vector<SpotTruth>* extraSpots = nullptr;
};

// Draws what the sensor sees: a fixed background picture scaled by the exposure, noise from a
// table, and the spots of the strokes active at the frame's time. With the X screen projected,
// each sensor pixel takes the screen pixel a precomputed table points it to. Allocates nothing
// per frame once the spot list has grown to its size and the screen's size is known.
class FrameRenderer
{
public:
    explicit FrameRenderer(const Scene& scene);
    ~FrameRenderer();
    FrameRenderer(const FrameRenderer&) = delete;
    FrameRenderer& operator=(const FrameRenderer&) = delete;

    // Writes geometry.bytes() bytes into out; spots receives the truth of the frame.
    void render(uint8_t* out, const FrameGeometry& geometry, const RenderState& state, std::vector<SpotTruth>& spots);
    // Spots active at a time, without drawing.
    void spotsAt(double time, const FrameGeometry& geometry, bool laserOn, std::vector<SpotTruth>& spots) const;
    // One spot at a screen point, with where it lands on the sensor and in the frame.
    SpotTruth spotAt(int id, Scene::SpotKind kind, double screenX, double screenY, double size, double brightness,
                     const FrameGeometry& geometry, bool laserOn) const;

private:
    void buildBase(std::vector<uint8_t>& base, bool picture) const;
    const uint8_t* projectedBase(const ScreenCapture::Look& look);
    void addBlob(uint8_t* out, const FrameGeometry& g, double sensorX, double sensorY, double sigma, double peak) const;

    Scene scene;
    ScreenProjection projection;
    std::vector<uint8_t> trackingBase, pictureBase;
    // The picture's base takes a lens mapping of every pixel (a third of a second): it is drawn
    // beside the first frames, which show no picture, and waited for when one is first shown.
    std::thread pictureBuilder;
    std::vector<int16_t> noiseTable;
    // Sensor pixel to luminance pixel of the screen looks (-1: off the screen), for looks of
    // lookupWidth x lookupHeight; the base with the newest look drawn in, and that look's number.
    std::vector<int32_t> lookup;
    int lookupWidth = 0, lookupHeight = 0;
    std::vector<uint8_t> screenBase;
    uint64_t screenBaseSequence = 0;
};
