#pragma once

#include "lensmodel.h"

#include <cstdint>
#include <string>
#include <vector>

// What the emulated camera looks at and how the emulated device misbehaves, read from a small
// line-based text file (format in README.md). Times of strokes, faults and the unplug count
// from the start request; the appearance of the device counts from the first libusb_init.
class Scene
{
public:
    enum class SpotKind { Stylus, Finger };
    enum class LaserMode { Follow, On, Off };
    enum class Bridge { Fx2, Fx3 };
    enum class FaultType { Short, Drop, Timeout, Stall, Slow };

    struct Point { double x, y; };
    struct Stroke {
        SpotKind kind;
        double start, duration;
        double size;        // spot diameter in sensor pixels
        double brightness;  // peak added over the background at the reference exposure
        std::vector<Point> path;  // screen pixels, walked at constant speed
    };
    // A reflection lit only from `from` until `until` (seconds since the start request).
    struct Reflection { double x, y, radius, peak, from = 0, until = -1; bool timed() const { return from > 0 || until >= 0; } };
    struct Colour { int r, g, b; };
    // A person who presses targets of one colour on the X screen (see EmulatedUser).
    struct User {
        SpotKind kind;
        double start;
        Colour target;
        int tolerance = 40;         // largest difference per channel still taken for the colour
        double hold = 1.0;          // seconds; below zero: until the target under the press changes
        double reaction = 0.4;      // seconds from seeing a new target to pressing it
        double accuracy = 0;        // largest distance of the press from the target, desktop pixels
        int count = 0;              // presses before the user stops; 0: no end
        double size, brightness;    // the spot, as for strokes
    };
    struct Fault {
        FaultType type;
        double start, duration;
        int every = 1;   // Drop: every n-th frame
        int bytes = -1;  // Short: bytes delivered, -1 for half the frame
        int delayMs = 0; // Slow: delay per completion handed to the consumer
    };

    int sensorWidth = 752, sensorHeight = 480;
    double fps = 120;
    uint16_t vendorId = 0x1209, productId = 0x7E1A;
    Bridge bridge = Bridge::Fx3;
    double appearAfter = 0;
    double unplugAt = -1;
    double loopPeriod = 0;
    double strokesFrom = 0; // strokes run this much later than written

    double screenWidth = 1920, screenHeight = 1080;
    double corners[8] = {60, 40, 692, 40, 700, 440, 52, 440};
    LensModel lens;

    double background = 12, noise = 2, pictureLevel = 90;
    unsigned seed = 1;
    std::vector<Reflection> reflections;
    LaserMode laser = LaserMode::Follow;
    // Where a finger is seen relative to where it touches, in screen pixels.
    double curtainX = 0, curtainY = 0;
    int exposureReference = 50;
    bool stamp = false;

    bool projector = false;          // the camera sees the X screen while the filter shows the picture
    double projectorLatency = 0.05;  // seconds the projected picture lags the X server
    double captureRate = 60;         // looks at the X screen per second

    std::vector<User> users;

    std::vector<Stroke> strokes;
    std::vector<Fault> faults;

    // A scene with no file: a still picture through the factory lens, no spots, no faults.
    static Scene defaults();
    // baseDir resolves relative file names in the text; error gets "name:line: what".
    static bool parse(const std::string& text, const std::string& name, const std::string& baseDir,
                      Scene& out, std::string& error);
    static bool load(const std::string& path, Scene& out, std::string& error);

    // Folder of the running program's factory files ("config" beside it).
    static std::string factoryConfigDir();
};
