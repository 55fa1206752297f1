// The dot-press calibration end to end: velora on the emulated sensor and a private X server,
// driven by velora-ctl, with an emulated person pressing the red centre of each crosshair.
// The run starts uncalibrated on a screen of its own, so only the procedure can put strokes
// in place.
#include "calibration.h"
#include "velorarun.h"

extern "C" {
#include <xdo.h>
}

namespace {

// A keystoned, smaller screen seen off-centre: nothing like the demo rig. The stylus is bright
// and wide enough for the stylus engine at the calibration exposure.
constexpr const char* rig = R"(screen 1280 800
corners 120 72 634 50 676 428 88 402
lens factory
noise 2
user stylus 1 target #ff0000 tolerance 60 reaction 0.7 accuracy 1 hold 0.45 size 8 brightness 900
)";

struct Press {
    double t, targetX, targetY, sensorX, sensorY;
};

class ManualCalibrationRun : public ::testing::Test, protected VeloraRun {
protected:
    std::vector<Press> presses() const
    {
        std::vector<Press> out;
        std::ifstream in(run->path("truth.txt"));
        std::string line;
        while (std::getline(in, line)) {
            if (line.rfind("P ", 0) != 0)
                continue;
            std::istringstream s(line.substr(2));
            Press p;
            std::string id, kind;
            double pressX, pressY;
            s >> p.t >> id >> kind >> p.targetX >> p.targetY >> pressX >> pressY >> p.sensorX >> p.sensorY;
            out.push_back(p);
        }
        return out;
    }

    // A key typed on the X server, to whatever window has the focus.
    void key(const char* name)
    {
        xdo_t* xdo = xdo_new(x.display.c_str());
        xdo_send_keysequence_window(xdo, CURRENTWINDOW, name, 0);
        xdo_free(xdo);
    }

    bool waitForReleases(size_t n, int ms = 60000)
    {
        QElapsedTimer t;
        t.start();
        for (; t.elapsed() < ms; QThread::msleep(10)) {
            std::ifstream in(run->path("truth.txt"));
            std::string line;
            size_t releases = 0;
            while (std::getline(in, line))
                releases += line.rfind("R ", 0) == 0;
            if (releases >= n)
                return true;
        }
        return false;
    }

    bool waitForPresses(size_t n, int ms = 60000)
    {
        QElapsedTimer t;
        t.start();
        while (presses().size() < n && t.elapsed() < ms)
            QThread::msleep(50);
        return presses().size() >= n;
    }
};

TEST_F(ManualCalibrationRun, PressedDotsBecomeTheCalibrationThatPutsStrokesInPlace)
{
    // Drawn once the calibration is long done.
    start(std::string(rig) + "stroke stylus 52 2.0 path 200,200 1100,620\n");
    EXPECT_EQ(ctl({"stylus"}).second, "not calibrated");
    std::thread undo([&] {
        // One dot taken back once the person has lifted from it: pressed again where it reappears.
        // Soon after the lift, so that the crosshair has glided back before the person, who
        // has seen the next dot by then, presses.
        if (waitForReleases(4))
            QThread::msleep(100), key("Return");
    });
    const auto [code, text] = ctl({"calibrate", "manual"});
    undo.join();
    EXPECT_EQ(code, 0) << qPrintable(text) << "\n" << qPrintable(log());

    const std::vector<Press> ps = presses();
    ASSERT_GE(ps.size(), 26u) << "25 dots and one again after the undo";
    std::unique_ptr<Calibration> c(Calibration::read((userDir() + "stylus-velora.ini").toLocal8Bit().constData()));
    ASSERT_TRUE(c) << "the file of the new calibration";
    ASSERT_EQ(c->srcPoints.size(), 25u);
    // The dots in snake order: each stored sensor point is where the person pressed that dot.
    const std::vector<EVector> dst = c->calcDstPoints(1280, 800);
    for (size_t i = 0; i < 25; ++i) {
        const Press* last = nullptr;
        for (const Press& p : ps)
            // The dots lie some 190 pixels apart; a target seen while it was being drawn
            // again after the undo may have its centre a few pixels off.
            if (std::hypot(p.targetX - dst[i].x, p.targetY - dst[i].y) < 20)
                last = &p;
        ASSERT_TRUE(last) << "no press at dot " << i;
        EXPECT_NEAR(c->srcPoints[i].x, last->sensorX, 1.0) << i;
        EXPECT_NEAR(c->srcPoints[i].y, last->sensorY, 1.0) << i;
    }

    // The stroke afterwards moves the desktop's pointer along its path.
    const std::vector<std::pair<int, int>> seen = pointerUntil(55);
    ASSERT_GT(seen.size(), 20u) << "the stroke moved the pointer";
    int far = 0;
    for (size_t i = 1; i < seen.size(); ++i)
        if (distanceToSegment(seen[i].first, seen[i].second, 200, 200, 1100, 620) > 3)
            ++far;
    EXPECT_EQ(far, 0) << "pointer positions more than 3 pixels off the stroke, of " << seen.size();
    EXPECT_LE(std::hypot(seen.back().first - 1100, seen.back().second - 620), 10.0) << "the stroke's end was reached";
}

TEST_F(ManualCalibrationRun, EscKeepsTheFormerCalibrationAndLightOnTheScreenIsADisturbance)
{
    // The reflection lies inside the screen and comes on for the second run.
    const QString file = userDir() + "stylus-velora.ini";
    // Bright enough for the stylus engine at the calibration exposure. The check learns the
    // light that is there before it as background: the reflection comes on while it listens.
    start(std::string(rig) + "reflection 380 240 8 800 from 20 until 26\n", file);
    QFile former(file);
    ASSERT_TRUE(former.open(QIODevice::ReadOnly));
    const QByteArray before = former.readAll();
    former.close();
    ASSERT_EQ(ctl({"stylus"}).first, 0);
    std::thread esc([&] {
        if (waitForPresses(3))
            key("Escape");
    });
    auto [code, text] = ctl({"calibrate", "manual"});
    esc.join();
    EXPECT_EQ(text, "cancelled") << qPrintable(log());
    ASSERT_TRUE(former.open(QIODevice::ReadOnly));
    EXPECT_EQ(former.readAll(), before) << "the former calibration stays";

    while (streamTime() < 19.2)
        QThread::msleep(20);
    std::tie(code, text) = ctl({"calibrate", "manual"});
    (void)code;
    EXPECT_EQ(text, "light disturbance") << qPrintable(log());
    if (HasFailure())
        for (const QString& l : QString::fromStdString(run->fileText("velora.log")).split('\n'))
            if (l.contains("ui event") || l.contains("Status") || l.contains("isturbance on"))
                printf("%s\n", qPrintable(l));
}

} // namespace
