#include "scene.h"

#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

bool toDouble(const std::string& s, double& v)
{
    char* end = nullptr;
    v = std::strtod(s.c_str(), &end);
    return !s.empty() && *end == '\0';
}

bool toInt(const std::string& s, long& v, int base = 10)
{
    char* end = nullptr;
    v = std::strtol(s.c_str(), &end, base);
    return !s.empty() && *end == '\0';
}

bool toPoint(const std::string& s, Scene::Point& p)
{
    auto comma = s.find(',');
    return comma != std::string::npos && toDouble(s.substr(0, comma), p.x) && toDouble(s.substr(comma + 1), p.y);
}

// Where a comment begins: at a '#', unless it starts a colour word #rrggbb.
size_t commentStart(const std::string& line)
{
    for (size_t hash = line.find('#'); hash != std::string::npos; hash = line.find('#', hash + 1)) {
        const bool wordStart = hash == 0 || std::isspace(static_cast<unsigned char>(line[hash - 1]));
        const bool wordEnd = hash + 7 >= line.size() || std::isspace(static_cast<unsigned char>(line[hash + 7]));
        bool hex = hash + 7 <= line.size();
        for (size_t i = hash + 1; hex && i < hash + 7; ++i) {
            hex = std::isxdigit(static_cast<unsigned char>(line[i]));
        }
        if (!(wordStart && wordEnd && hex)) {
            return hash;
        }
    }
    return std::string::npos;
}

std::string resolve(const std::string& baseDir, const std::string& file)
{
    if (file.empty() || file[0] == '/' || baseDir.empty()) {
        return file;
    }
    return baseDir + "/" + file;
}

bool factoryLens(LensModel& lens, std::string& error)
{
    std::string dir = Scene::factoryConfigDir();
    return lens.loadFiles(dir + "/intrinsic.xml", dir + "/distortion.xml", error);
}

} // namespace

std::string Scene::factoryConfigDir()
{
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) {
        return "config";
    }
    std::string exe(buf, static_cast<size_t>(n));
    return exe.substr(0, exe.rfind('/')) + "/config";
}

Scene Scene::defaults()
{
    Scene s;
    std::string ignored;
    if (!factoryLens(s.lens, ignored)) {
        s.lens = LensModel();
    }
    return s;
}

bool Scene::load(const std::string& path, Scene& out, std::string& error)
{
    std::ifstream in(path);
    if (!in) {
        error = path + ": cannot be read";
        return false;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    auto slash = path.rfind('/');
    return parse(ss.str(), path, slash == std::string::npos ? "." : path.substr(0, slash), out, error);
}

bool Scene::parse(const std::string& text, const std::string& name, const std::string& baseDir,
                  Scene& out, std::string& error)
{
    Scene s;
    std::istringstream lines(text);
    std::string line;
    int lineNo = 0;
    auto fail = [&](const std::string& what) {
        error = name + ":" + std::to_string(lineNo) + ": " + what;
        return false;
    };
    while (std::getline(lines, line)) {
        ++lineNo;
        if (size_t hash = commentStart(line); hash != std::string::npos) {
            line.erase(hash);
        }
        std::istringstream words(line);
        std::vector<std::string> t;
        for (std::string w; words >> w;) {
            t.push_back(w);
        }
        if (t.empty()) {
            continue;
        }
        const std::string& key = t[0];
        auto nums = [&](size_t count, double* v) {
            if (t.size() != count + 1) {
                return false;
            }
            for (size_t i = 0; i < count; ++i) {
                if (!toDouble(t[i + 1], v[i])) {
                    return false;
                }
            }
            return true;
        };
        double v[8];
        if (key == "sensor") {
            if (!nums(2, v) || v[0] < 16 || v[1] < 16 || v[0] > 4096 || v[1] > 4096) {
                return fail("sensor takes width and height (16 to 4096)");
            }
            s.sensorWidth = static_cast<int>(v[0]);
            s.sensorHeight = static_cast<int>(v[1]);
        } else if (key == "fps") {
            if (!nums(1, v) || v[0] <= 0 || v[0] > 100000) {
                return fail("fps takes a positive rate");
            }
            s.fps = v[0];
        } else if (key == "device") {
            long vid, pid;
            if (t.size() != 3 || !toInt(t[1], vid, 16) || !toInt(t[2], pid, 16) || vid < 0 || vid > 0xFFFF
                || pid < 0 || pid > 0xFFFF) {
                return fail("device takes vendor and product id in hexadecimal");
            }
            s.vendorId = static_cast<uint16_t>(vid);
            s.productId = static_cast<uint16_t>(pid);
        } else if (key == "bridge") {
            if (t.size() != 2 || (t[1] != "fx2" && t[1] != "fx3")) {
                return fail("bridge is fx2 or fx3");
            }
            s.bridge = t[1] == "fx2" ? Bridge::Fx2 : Bridge::Fx3;
        } else if (key == "loop" && t.size() == 4 && t[2] == "from") {
            if (!toDouble(t[1], v[0]) || !toDouble(t[3], v[1]) || v[0] < 0 || v[1] < 0) {
                return fail("loop takes a time in seconds, then from T");
            }
            s.loopPeriod = v[0];
            s.strokesFrom = v[1];
        } else if (key == "appear" || key == "unplug" || key == "loop") {
            if (!nums(1, v) || v[0] < 0) {
                return fail(key + " takes a time in seconds");
            }
            (key == "appear" ? s.appearAfter : key == "unplug" ? s.unplugAt : s.loopPeriod) = v[0];
        } else if (key == "screen") {
            if (!nums(2, v) || v[0] <= 0 || v[1] <= 0) {
                return fail("screen takes width and height");
            }
            s.screenWidth = v[0];
            s.screenHeight = v[1];
        } else if (key == "corners") {
            if (!nums(8, v)) {
                return fail("corners takes eight numbers: top left, top right, bottom right, bottom left");
            }
            std::copy(v, v + 8, s.corners);
        } else if (key == "lens") {
            if (t.size() == 2 && t[1] == "none") {
                s.lens = LensModel();
            } else if (t.size() == 2 && t[1] == "factory") {
                // Without the factory files the picture is still usable, only straight.
                std::string why;
                if (!factoryLens(s.lens, why)) {
                    std::fprintf(stderr, "sensor emulator: %s:%d: no factory lens (%s), using an ideal one\n",
                                 name.c_str(), lineNo, why.c_str());
                    s.lens = LensModel();
                }
            } else if (t.size() == 4 && t[1] == "files") {
                std::string why;
                if (!s.lens.loadFiles(resolve(baseDir, t[2]), resolve(baseDir, t[3]), why)) {
                    return fail(why);
                }
            } else {
                double p[12];
                size_t n = t.size() - 1;
                if (n < 4 || n > 12) {
                    return fail("lens takes fx fy cx cy and up to eight coefficients, or none, factory, files");
                }
                for (size_t i = 0; i < n; ++i) {
                    if (!toDouble(t[i + 1], p[i])) {
                        return fail("lens: not a number: " + t[i + 1]);
                    }
                }
                if (p[0] <= 0 || p[1] <= 0) {
                    return fail("lens focal lengths must be positive");
                }
                s.lens = LensModel(p[0], p[1], p[2], p[3], p + 4, static_cast<int>(n - 4));
            }
        } else if (key == "background" || key == "noise" || key == "picture") {
            if (!nums(1, v) || v[0] < 0 || v[0] > 255) {
                return fail(key + " takes a level from 0 to 255");
            }
            (key == "background" ? s.background : key == "noise" ? s.noise : s.pictureLevel) = v[0];
        } else if (key == "seed") {
            long n;
            if (t.size() != 2 || !toInt(t[1], n)) {
                return fail("seed takes a whole number");
            }
            s.seed = static_cast<unsigned>(n);
        } else if (key == "reflection") {
            // reflection X Y R PEAK [from T] [until T2]
            Reflection r{};
            r.until = -1;
            bool ok = t.size() >= 5 && t.size() % 2 == 1;
            for (size_t i = 1; ok && i < 5; ++i) {
                ok = toDouble(t[i], v[i - 1]);
            }
            ok = ok && v[2] > 0;
            for (size_t i = 5; ok && i + 1 < t.size(); i += 2) {
                double* target = t[i] == "from" ? &r.from : t[i] == "until" ? &r.until : nullptr;
                ok = target && toDouble(t[i + 1], *target) && *target >= 0;
            }
            if (!ok || (r.until >= 0 && r.until <= r.from)) {
                return fail("reflection takes sensor x, y, radius and peak, then from T and until T2 (later)");
            }
            r.x = v[0];
            r.y = v[1];
            r.radius = v[2];
            r.peak = v[3];
            s.reflections.push_back(r);
        } else if (key == "projector") {
            // projector display|off [latency S] [rate HZ]
            bool ok = t.size() >= 2 && t.size() % 2 == 0 && (t[1] == "display" || t[1] == "off");
            for (size_t i = 2; ok && i + 1 < t.size(); i += 2) {
                double* target = t[i] == "latency" ? &s.projectorLatency : t[i] == "rate" ? &s.captureRate : nullptr;
                ok = target && toDouble(t[i + 1], *target) && *target >= 0;
            }
            if (!ok || s.captureRate < 1 || s.captureRate > 1000 || s.projectorLatency > 10) {
                return fail("projector is display or off, then latency S (0 to 10) and rate HZ (1 to 1000)");
            }
            s.projector = t[1] == "display";
        } else if (key == "user") {
            // user KIND START target #rrggbb [tolerance T] [hold S|change] [reaction S] [accuracy PX]
            //      [count N] [size D] [brightness B]
            if (t.size() < 5 || (t[1] != "stylus" && t[1] != "finger") || t.size() % 2 == 0) {
                return fail("user takes stylus or finger, a start time, target #rrggbb and options");
            }
            User u{};
            u.kind = t[1] == "stylus" ? SpotKind::Stylus : SpotKind::Finger;
            u.size = u.kind == SpotKind::Stylus ? 5 : 10;
            u.brightness = u.kind == SpotKind::Stylus ? 240 : 120;
            u.tolerance = 40;
            u.hold = 1.0;
            u.reaction = 0.4;
            if (!toDouble(t[2], u.start) || u.start < 0) {
                return fail("user: start is a time in seconds");
            }
            bool haveTarget = false;
            for (size_t i = 3; i + 1 < t.size(); i += 2) {
                const std::string& opt = t[i];
                const std::string& arg = t[i + 1];
                long n = 0;
                double d = 0;
                if (opt == "target") {
                    if (arg.size() != 7 || arg[0] != '#' || !toInt(arg.substr(1), n, 16)) {
                        return fail("user: target is a colour #rrggbb: " + arg);
                    }
                    u.target = {static_cast<int>(n >> 16 & 255), static_cast<int>(n >> 8 & 255), static_cast<int>(n & 255)};
                    haveTarget = true;
                } else if (opt == "hold" && arg == "change") {
                    u.hold = -1;
                } else if ((opt == "tolerance" || opt == "count") && toInt(arg, n) && n >= 0 && n <= 1000000) {
                    (opt == "tolerance" ? u.tolerance : u.count) = static_cast<int>(n);
                } else if ((opt == "hold" || opt == "reaction" || opt == "accuracy" || opt == "size"
                            || opt == "brightness") && toDouble(arg, d) && d >= 0) {
                    double* target = opt == "hold" ? &u.hold : opt == "reaction" ? &u.reaction
                        : opt == "accuracy" ? &u.accuracy : opt == "size" ? &u.size : &u.brightness;
                    *target = d;
                } else {
                    return fail("user: unknown or bad option " + opt + " " + arg);
                }
            }
            if (!haveTarget) {
                return fail("user: needs a target colour");
            }
            if (u.size <= 0 || u.brightness <= 0) {
                return fail("user: size and brightness must be positive");
            }
            s.users.push_back(u);
        } else if (key == "laser") {
            if (t.size() != 2 || (t[1] != "follow" && t[1] != "on" && t[1] != "off")) {
                return fail("laser is follow, on or off");
            }
            s.laser = t[1] == "on" ? LaserMode::On : t[1] == "off" ? LaserMode::Off : LaserMode::Follow;
        } else if (key == "curtain") {
            if (!nums(2, v)) {
                return fail("curtain takes the finger's displacement x, y in screen pixels");
            }
            s.curtainX = v[0];
            s.curtainY = v[1];
        } else if (key == "exposure") {
            if (!nums(1, v) || v[0] < 1 || v[0] > 65535) {
                return fail("exposure takes the reference exposure (1 to 65535)");
            }
            s.exposureReference = static_cast<int>(v[0]);
        } else if (key == "stamp") {
            if (t.size() != 2 || (t[1] != "on" && t[1] != "off")) {
                return fail("stamp is on or off");
            }
            s.stamp = t[1] == "on";
        } else if (key == "stroke" || key == "tap") {
            // stroke KIND START DURATION [size S] [brightness B] path|at x,y ...
            if (t.size() < 6 || (t[1] != "stylus" && t[1] != "finger")) {
                return fail(key + " takes stylus or finger, start, duration, options and a path");
            }
            Stroke st;
            st.kind = t[1] == "stylus" ? SpotKind::Stylus : SpotKind::Finger;
            st.size = st.kind == SpotKind::Stylus ? 5 : 10;
            st.brightness = st.kind == SpotKind::Stylus ? 240 : 120;
            if (!toDouble(t[2], st.start) || !toDouble(t[3], st.duration) || st.start < 0 || st.duration <= 0) {
                return fail(key + ": start and a positive duration in seconds");
            }
            size_t i = 4;
            for (; i < t.size(); i += 2) {
                if (t[i] == "path" || t[i] == "at") {
                    break;
                }
                double* target = t[i] == "size" ? &st.size : t[i] == "brightness" ? &st.brightness : nullptr;
                if (!target || i + 1 >= t.size() || !toDouble(t[i + 1], *target) || *target <= 0) {
                    return fail(key + ": unknown or bad option " + t[i]);
                }
            }
            for (++i; i < t.size(); ++i) {
                Point p;
                if (!toPoint(t[i], p)) {
                    return fail(key + ": a point is written x,y: " + t[i]);
                }
                st.path.push_back(p);
            }
            if (st.path.empty()) {
                return fail(key + ": needs at least one point after path or at");
            }
            s.strokes.push_back(st);
        } else if (key == "fault") {
            static const char* names[] = {"short", "drop", "timeout", "stall", "slow"};
            Fault f{};
            int type = -1;
            for (int k = 0; k < 5; ++k) {
                if (t.size() > 1 && t[1] == names[k]) {
                    type = k;
                }
            }
            if (type < 0 || t.size() < 3 || !toDouble(t[2], f.start) || f.start < 0) {
                return fail("fault takes short, drop, timeout, stall or slow, and a start time");
            }
            f.type = static_cast<FaultType>(type);
            f.duration = 1e9;
            size_t options = 3;
            if (t.size() > 3 && toDouble(t[3], f.duration)) {
                options = 4;
            } else {
                f.duration = 1e9;
            }
            if (f.duration <= 0) {
                return fail("fault: duration must be positive");
            }
            for (size_t i = options; i < t.size(); i += 2) {
                long n;
                int* target = t[i] == "every" ? &f.every : t[i] == "bytes" ? &f.bytes : t[i] == "ms" ? &f.delayMs : nullptr;
                if (!target || i + 1 >= t.size() || !toInt(t[i + 1], n) || n < 0 || n > 100000000) {
                    return fail("fault: unknown or bad option " + t[i]);
                }
                *target = static_cast<int>(n);
            }
            if (f.every < 1) {
                return fail("fault: every must be 1 or more");
            }
            s.faults.push_back(f);
        } else {
            return fail("unknown keyword " + key);
        }
    }
    out = s;
    return true;
}
