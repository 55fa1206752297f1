// The automatic calibration end to end: velora on the emulated sensor, whose projector shows
// the private X server's screen, asked by velora-ctl. Each scene of the table is one run of
// the service: the answer, then for a run that calibrates the file's points against the
// scene's own screen mapping, and a stroke afterwards on the desktop.
#include "calibration.h"
#include "emulatedrun.h"
#include "scene.h"
#include "screenprojection.h"
#include "xvfbserver.h"

#include <QStandardPaths>
#include <QThread>

#include <X11/Xlib.h>

#include <cmath>

namespace {

struct AcScene {
    const char* name;
    const char* scene;
    const char* answer;  // velora-ctl's line
    bool calibrates;     // the file must hold the scene's grid, and strokes land
};

// The stroke comes once the calibration is surely done; the run checks that it was.
constexpr double strokeStart = 32.0;
constexpr const char* stroke = "stroke stylus 32 2.0 path 200,200 1100,620\n";

const AcScene scenes[] = {
    {"plain", "screen 1280 800\nlens none\nnoise 2\nexposure 30\npicture 90\nprojector display latency 0.05\n",
     "calibration done", true},
};

QString userDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/Velora/";
}

double distanceToSegment(double px, double py, double ax, double ay, double bx, double by)
{
    const double dx = bx - ax, dy = by - ay;
    const double u = std::clamp(((px - ax) * dx + (py - ay) * dy) / (dx * dx + dy * dy), 0.0, 1.0);
    return std::hypot(px - (ax + u * dx), py - (ay + u * dy));
}

class AutoCalibrationRun : public ::testing::TestWithParam<AcScene> {
protected:
    XvfbServer x;
    std::unique_ptr<EmulatedRun> run;
    Display* dpy = nullptr;

    void start(const std::string& scene)
    {
        ASSERT_TRUE(x.start("1280x800x24")) << x.failure;
        dpy = XOpenDisplay(x.display.c_str());
        ASSERT_TRUE(dpy);
        run = std::make_unique<EmulatedRun>(scene);
        QProcessEnvironment env = run->process.processEnvironment();
        env.insert("QT_QPA_PLATFORM", "xcb");
        env.insert("QT_QUICK_BACKEND", "software");
        env.insert("DISPLAY", QString::fromStdString(x.display));
        run->process.setProcessEnvironment(env);
        run->process.setStandardOutputFile(QString::fromStdString(run->path("velora.log")));
        QDir().mkpath(userDir());
        run->startVelora();
        QElapsedTimer t;
        t.start();
        while (!log().contains("Fifo position") && t.elapsed() < 60000)
            QThread::msleep(50);
        ASSERT_TRUE(log().contains("Fifo position")) << qPrintable(log());
    }
    void TearDown() override
    {
        if (run)
            run->process.kill();
        if (dpy)
            XCloseDisplay(dpy);
    }

    std::pair<int, QString> ctl(const QStringList& command)
    {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("DISPLAY", QString::fromStdString(x.display));
        p.setProcessEnvironment(env);
        p.start(QFileInfo(VELORA_BINARY).absolutePath() + "/velora-ctl", command);
        p.waitForFinished(180000);
        return {p.exitCode(), QString::fromLocal8Bit(p.readAllStandardOutput()).trimmed()};
    }

    QString log() const { return QString::fromStdString(run->fileText("velora.log")).right(4000); }

    std::pair<int, int> pointer()
    {
        Window root, child;
        int x0, y0, wx, wy;
        unsigned m;
        XQueryPointer(dpy, DefaultRootWindow(dpy), &root, &child, &x0, &y0, &wx, &wy, &m);
        return {x0, y0};
    }

    // Seconds since the stream started, by the last frame the emulator sent.
    double streamTime() const
    {
        std::istringstream all(run->fileText("truth.txt"));
        std::string line, last;
        while (std::getline(all, line))
            if (line.rfind("F ", 0) == 0)
                last = line;
        std::istringstream s(last);
        std::string f, frame;
        double t = 0;
        s >> f >> frame >> t;
        return t;
    }
};

TEST_P(AutoCalibrationRun, AnswersAndPutsTheFoundGridInForce)
{
    const AcScene& c = GetParam();
    start(std::string(c.scene) + stroke);
    ASSERT_EQ(ctl({"stylus"}).second, "not calibrated");

    QElapsedTimer asked;
    asked.start();
    const auto [code, text] = ctl({"calibrate", "auto"});
    const qint64 tookMs = asked.elapsed();
    RecordProperty("answer_ms", int(tookMs));
    printf("%s: answer after %lld ms\n", c.name, static_cast<long long>(tookMs));
    EXPECT_EQ(text, c.answer) << qPrintable(log());
    EXPECT_EQ(code, 0);
    if (!c.calibrates)
        return;
    ASSERT_LT(streamTime(), strokeStart) << "the calibration took too long for the stroke";

    std::unique_ptr<Calibration> cal(Calibration::read((userDir() + "stylus-velora.ini").toLocal8Bit().constData()));
    ASSERT_TRUE(cal) << "the file of the new calibration";
    ASSERT_EQ(cal->srcPoints.size(), size_t(cal->cols) * cal->rows);
    ASSERT_GE(cal->cols, 2);
    Scene scene;
    std::string error;
    ASSERT_TRUE(Scene::load(run->path("scene.txt"), scene, error)) << error;
    const ScreenProjection truth(scene.screenWidth, scene.screenHeight, scene.corners, scene.lens);
    const std::vector<EVector> dst = cal->calcDstPoints(scene.screenWidth, scene.screenHeight);
    ASSERT_EQ(dst.size(), cal->srcPoints.size());
    for (size_t i = 0; i < dst.size(); ++i) {
        double sx, sy;
        truth.toSensor(dst[i].x, dst[i].y, sx, sy);
        EXPECT_LE(std::hypot(cal->srcPoints[i].x - sx, cal->srcPoints[i].y - sy), 1.0)
            << "dot " << i << " at " << dst[i].x << "," << dst[i].y << " found at " << cal->srcPoints[i].x << ","
            << cal->srcPoints[i].y << ", truth " << sx << "," << sy;
    }

    std::vector<std::pair<int, int>> seen;
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < 60000) {
        const auto p = pointer();
        if (seen.empty() || seen.back() != p)
            seen.push_back(p);
        QThread::msleep(5);
        if (t.elapsed() % 500 < 6 && streamTime() > strokeStart + 3)
            break;
    }
    ASSERT_GT(seen.size(), 20u) << "the stroke moved the pointer";
    int far = 0;
    // The first entry is where the pointer stood before the stroke.
    for (size_t i = 1; i < seen.size(); ++i)
        if (distanceToSegment(seen[i].first, seen[i].second, 200, 200, 1100, 620) > 3)
            ++far;
    EXPECT_EQ(far, 0) << "pointer positions more than 3 pixels off the stroke, of " << seen.size();
    EXPECT_LE(std::hypot(seen.back().first - 1100, seen.back().second - 620), 10.0) << "the stroke's end was reached";
}

INSTANTIATE_TEST_SUITE_P(Scenes, AutoCalibrationRun, ::testing::ValuesIn(scenes),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
