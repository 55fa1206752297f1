#pragma once

#include "scene.h"
#include "screenprojection.h"

#include <cstdint>
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
};

struct RenderState {
    double time = 0;          // seconds since the start request
    uint64_t frame = 0;
    int exposure = 50;
    bool laserOn = false;
    bool pictureShown = false;  // the filter lets the projected picture through
};

// Draws what the sensor sees: a fixed background picture scaled by the exposure, noise from a
// table, and the spots of the strokes active at the frame's time. Allocates nothing per frame
// once the spot list has grown to its size.
class FrameRenderer
{
public:
    explicit FrameRenderer(const Scene& scene);

    // Writes geometry.bytes() bytes into out; spots receives the truth of the frame.
    void render(uint8_t* out, const FrameGeometry& geometry, const RenderState& state, std::vector<SpotTruth>& spots);
    // Spots active at a time, without drawing.
    void spotsAt(double time, const FrameGeometry& geometry, bool laserOn, std::vector<SpotTruth>& spots) const;

private:
    void buildBase(std::vector<uint8_t>& base, bool picture) const;

    Scene scene;
    ScreenProjection projection;
    std::vector<uint8_t> trackingBase, pictureBase;
    std::vector<int16_t> noiseTable;
};
