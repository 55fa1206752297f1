// velora-scene-calibration: the calibration a perfect calibration run would produce for an
// emulator scene. Each dot of the calibration layout is projected through the scene's own
// screen mapping and lens onto the sensor, so the running system maps light back to the
// desktop pixel the scene drew it at.
#include "calibration.h"
#include "scene.h"
#include "screenprojection.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: %s SCENE OUT.ini [N]\n"
                             "  N: dots per side of the square grid (default 7)\n", argv[0]);
        return 2;
    }
    // calcDstPoints only lays out square grids completely.
    const int n = argc == 4 ? std::atoi(argv[3]) : 7;
    if (n < 2 || n > 50) {
        std::fprintf(stderr, "%s: the grid needs 2 to 50 dots per side\n", argv[0]);
        return 2;
    }
    Scene scene;
    std::string error;
    if (!Scene::load(argv[1], scene, error)) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
        return 1;
    }
    const ScreenProjection projection(scene.screenWidth, scene.screenHeight, scene.corners, scene.lens);
    if (!projection.valid()) {
        std::fprintf(stderr, "%s: the scene's corners do not make a screen\n", argv[0]);
        return 1;
    }

    // Small margins keep the outer dots on the screen while the grid still covers nearly all of it.
    const double margin = 0.05;
    Calibration layout(n, n, {}, {}, margin, margin, 0.0, false, false);
    const std::vector<EVector> dots = layout.calcDstPoints(scene.screenWidth, scene.screenHeight);
    std::vector<EVector> sensor;
    sensor.reserve(dots.size());
    for (const EVector& d : dots) {
        double x, y;
        projection.toSensor(d.x, d.y, x, y);
        if (x < 0 || y < 0 || x >= scene.sensorWidth || y >= scene.sensorHeight) {
            std::fprintf(stderr, "%s: dot (%g, %g) falls off the sensor at (%g, %g)\n", argv[0], d.x, d.y, x, y);
            return 1;
        }
        sensor.emplace_back(x, y);
    }
    Calibration calibration(n, n, std::move(sensor), {}, margin, margin, 0.0, false, true);
    calibration.save(argv[2]);
    if (!Calibration::exists(argv[2])) {
        std::fprintf(stderr, "%s: cannot write %s\n", argv[0], argv[2]);
        return 1;
    }
    return 0;
}
