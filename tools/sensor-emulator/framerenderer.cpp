#include "framerenderer.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace {
constexpr size_t noiseTableSize = 1 << 16;

inline uint8_t clampByte(int v)
{
    return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
}
} // namespace

FrameRenderer::FrameRenderer(const Scene& s)
    : scene(s), projection(s.screenWidth, s.screenHeight, s.corners, s.lens), noiseTable(noiseTableSize)
{
    buildBase(trackingBase, false);
    if (scene.pictureLevel > 0) {
        pictureBuilder = std::thread([this] { buildBase(pictureBase, true); });
    } else {
        pictureBase = trackingBase;
    }
    std::mt19937 rng(scene.seed);
    std::normal_distribution<double> normal(0.0, scene.noise);
    for (auto& n : noiseTable) {
        n = static_cast<int16_t>(std::lround(scene.noise > 0 ? normal(rng) : 0.0));
    }
}

FrameRenderer::~FrameRenderer()
{
    if (pictureBuilder.joinable()) {
        pictureBuilder.join();
    }
}

void FrameRenderer::buildBase(std::vector<uint8_t>& base, bool picture) const
{
    const int w = scene.sensorWidth, h = scene.sensorHeight;
    std::vector<double> level(static_cast<size_t>(w) * h, scene.background);
    for (const auto& r : scene.reflections) {
        if (r.timed()) {
            continue;  // drawn per frame while lit
        }
        double sigma = r.radius / 2.0;
        int x0 = std::max(0, static_cast<int>(r.x - 3 * sigma)), x1 = std::min(w - 1, static_cast<int>(r.x + 3 * sigma));
        int y0 = std::max(0, static_cast<int>(r.y - 3 * sigma)), y1 = std::min(h - 1, static_cast<int>(r.y + 3 * sigma));
        for (int y = y0; y <= y1; ++y) {
            for (int x = x0; x <= x1; ++x) {
                double d2 = (x - r.x) * (x - r.x) + (y - r.y) * (y - r.y);
                level[static_cast<size_t>(y) * w + x] += r.peak * std::exp(-d2 / (2 * sigma * sigma));
            }
        }
    }
    if (picture && projection.valid()) {
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                double sx, sy;
                projection.toScreen(x, y, sx, sy);
                if (sx >= 0 && sy >= 0 && sx < scene.screenWidth && sy < scene.screenHeight) {
                    level[static_cast<size_t>(y) * w + x] += scene.pictureLevel;
                }
            }
        }
    }
    base.resize(level.size());
    for (size_t i = 0; i < level.size(); ++i) {
        base[i] = clampByte(static_cast<int>(std::lround(level[i])));
    }
}

void FrameRenderer::spotsAt(double time, const FrameGeometry& g, bool laserOn, std::vector<SpotTruth>& spots) const
{
    spots.clear();
    if (time < scene.strokesFrom) {
        return;
    }
    double local = time - scene.strokesFrom;
    long cycle = 0;
    if (scene.loopPeriod > 0) {
        cycle = static_cast<long>(std::floor(local / scene.loopPeriod));
        local -= cycle * scene.loopPeriod;
    }
    const int count = static_cast<int>(scene.strokes.size());
    for (int i = 0; i < count; ++i) {
        const auto& st = scene.strokes[static_cast<size_t>(i)];
        if (local < st.start || local >= st.start + st.duration) {
            continue;
        }
        // Constant speed along the polyline.
        double total = 0;
        for (size_t k = 1; k < st.path.size(); ++k) {
            total += std::hypot(st.path[k].x - st.path[k - 1].x, st.path[k].y - st.path[k - 1].y);
        }
        double want = total * (local - st.start) / st.duration;
        Scene::Point p = st.path.front();
        for (size_t k = 1; k < st.path.size(); ++k) {
            double len = std::hypot(st.path[k].x - st.path[k - 1].x, st.path[k].y - st.path[k - 1].y);
            if (want <= len && len > 0) {
                double f = want / len;
                p = {st.path[k - 1].x + f * (st.path[k].x - st.path[k - 1].x),
                     st.path[k - 1].y + f * (st.path[k].y - st.path[k - 1].y)};
                break;
            }
            want -= len;
            p = st.path[k];
        }
        spots.push_back(spotAt(static_cast<int>(i + 1 + cycle * count), st.kind, p.x, p.y, st.size, st.brightness, g,
                               laserOn));
    }
}

SpotTruth FrameRenderer::spotAt(int id, Scene::SpotKind kind, double screenX, double screenY, double size,
                                double brightness, const FrameGeometry& g, bool laserOn) const
{
    SpotTruth t;
    t.id = id;
    t.kind = kind;
    t.screenX = screenX;
    t.screenY = screenY;
    // A curtain too high lights the finger above the surface: it is seen off its touch.
    if (kind == Scene::SpotKind::Finger)
        projection.toSensor(screenX + scene.curtainX, screenY + scene.curtainY, t.sensorX, t.sensorY);
    else
        projection.toSensor(screenX, screenY, t.sensorX, t.sensorY);
    t.imageX = g.x / g.binX + (t.sensorX - g.x - (g.binX - 1) / 2.0) / g.binX;
    t.imageY = g.y / g.binY + (t.sensorY - g.y - (g.binY - 1) / 2.0) / g.binY;
    t.lit = kind == Scene::SpotKind::Stylus || laserOn;
    t.size = size;
    t.brightness = brightness;
    return t;
}

const uint8_t* FrameRenderer::projectedBase(const ScreenCapture::Look& look)
{
    const int sw = scene.sensorWidth, sh = scene.sensorHeight;
    if (look.width != lookupWidth || look.height != lookupHeight) {
        lookupWidth = look.width;
        lookupHeight = look.height;
        lookup.assign(static_cast<size_t>(sw) * sh, -1);
        const double toDesktopX = look.desktopWidth / scene.screenWidth;
        const double toDesktopY = look.desktopHeight / scene.screenHeight;
        for (int y = 0; projection.valid() && y < sh; ++y) {
            for (int x = 0; x < sw; ++x) {
                double sx, sy;
                projection.toScreen(x, y, sx, sy);
                const int lx = static_cast<int>(std::floor(sx * toDesktopX)) / look.scale;
                const int ly = static_cast<int>(std::floor(sy * toDesktopY)) / look.scale;
                if (sx >= 0 && sy >= 0 && lx < look.width && ly < look.height) {
                    lookup[static_cast<size_t>(y) * sw + x] = ly * look.width + lx;
                }
            }
        }
        screenBase.resize(lookup.size());
        screenBaseSequence = 0;
    }
    if (look.sequence != screenBaseSequence) {
        // White is the picture level; the projector adds light in proportion to luminance.
        int level[256];
        for (int v = 0; v < 256; ++v) {
            level[v] = static_cast<int>(std::lround(v * scene.pictureLevel / 255.0));
        }
        const uint8_t* lum = look.luminance.data();
        for (size_t i = 0; i < lookup.size(); ++i) {
            const int32_t at = lookup[i];
            screenBase[i] = at < 0 ? trackingBase[i] : clampByte(trackingBase[i] + level[lum[at]]);
        }
        screenBaseSequence = look.sequence;
    }
    return screenBase.data();
}

void FrameRenderer::addBlob(uint8_t* out, const FrameGeometry& g, double sensorX, double sensorY, double sigma,
                            double peak) const
{
    const int cols = g.columns(), rows = g.rows();
    const double u = (sensorX - g.x - (g.binX - 1) / 2.0) / g.binX;
    const double v = (sensorY - g.y - (g.binY - 1) / 2.0) / g.binY;
    const int reach = static_cast<int>(std::ceil(3 * sigma)) + 1;
    int cx0 = std::max(0, static_cast<int>(std::floor(u - reach / static_cast<double>(g.binX))));
    int cx1 = std::min(cols - 1, static_cast<int>(std::ceil(u + reach / static_cast<double>(g.binX))));
    int cy0 = std::max(0, static_cast<int>(std::floor(v - reach / static_cast<double>(g.binY))));
    int cy1 = std::min(rows - 1, static_cast<int>(std::ceil(v + reach / static_cast<double>(g.binY))));
    for (int y = cy0; y <= cy1; ++y) {
        double dy = (y - v) * g.binY;
        for (int x = cx0; x <= cx1; ++x) {
            double dx = (x - u) * g.binX;
            double add = peak * std::exp(-(dx * dx + dy * dy) / (2 * sigma * sigma));
            uint8_t& px = out[static_cast<size_t>(y) * cols + x];
            px = clampByte(px + static_cast<int>(add + 0.5));
        }
    }
}


void FrameRenderer::render(uint8_t* out, const FrameGeometry& g, const RenderState& state, std::vector<SpotTruth>& spots)
{
    const int sw = scene.sensorWidth, sh = scene.sensorHeight;
    const int cols = g.columns(), rows = g.rows();
    const int gain = std::min(1 << 20, state.exposure * 256 / scene.exposureReference);
    if (state.pictureShown && !state.screen && pictureBuilder.joinable()) {
        pictureBuilder.join();
    }
    const uint8_t* base = !state.pictureShown ? trackingBase.data()
        : state.screen                        ? projectedBase(*state.screen)
                                              : pictureBase.data();
    size_t noiseAt = static_cast<size_t>((state.frame * 2654435761u + scene.seed) % noiseTableSize);
    const int16_t* noise = noiseTable.data();
    const int binArea = g.binX * g.binY;

    for (int r = 0; r < rows; ++r) {
        uint8_t* dst = out + static_cast<size_t>(r) * cols;
        const int sy = g.y + r * g.binY;
        if (sy < 0 || sy + g.binY > sh) {
            std::fill(dst, dst + cols, 0);
            continue;
        }
        // Columns whose whole bin lies on the sensor; the rest stays dark.
        int c0 = g.x >= 0 ? 0 : (-g.x + g.binX - 1) / g.binX;
        int c1 = std::min(cols, (sw - g.x) / g.binX);
        std::fill(dst, dst + std::max(0, std::min(c0, cols)), 0);
        if (c1 < cols) {
            std::fill(dst + std::max(c1, 0), dst + cols, 0);
        }
        if (noiseAt + static_cast<size_t>(cols) > noiseTableSize) {
            noiseAt = 0;
        }
        const int16_t* n = noise + noiseAt;
        noiseAt += static_cast<size_t>(cols) + 7;
        if (binArea == 1) {
            const uint8_t* src = base + static_cast<size_t>(sy) * sw + (g.x + c0);
            for (int c = c0; c < c1; ++c) {
                dst[c] = clampByte(((src[c - c0] * gain) >> 8) + n[c]);
            }
        } else {
            for (int c = c0; c < c1; ++c) {
                int sum = 0;
                const uint8_t* src = base + static_cast<size_t>(sy) * sw + g.x + c * g.binX;
                for (int by = 0; by < g.binY; ++by, src += sw) {
                    for (int bx = 0; bx < g.binX; ++bx) {
                        sum += src[bx];
                    }
                }
                dst[c] = clampByte((((sum / binArea) * gain) >> 8) + n[c]);
            }
        }
    }

    for (const auto& r : scene.reflections) {
        if (r.timed() && state.time >= r.from && (r.until < 0 || state.time < r.until)) {
            addBlob(out, g, r.x, r.y, r.radius / 2.0, r.peak * gain / 256.0);
        }
    }
    spotsAt(state.time, g, state.laserOn, spots);
    if (state.extraSpots) {
        spots.insert(spots.end(), state.extraSpots->begin(), state.extraSpots->end());
    }
    for (const auto& s : spots) {
        if (s.lit) {
            addBlob(out, g, s.sensorX, s.sensorY, s.size / 4.0, s.brightness * gain / 256.0);
        }
    }

    if (scene.stamp && cols * rows >= 4) {
        for (int i = 0; i < 4; ++i) {
            out[i] = static_cast<uint8_t>(state.frame >> (8 * i));
        }
    }
}
