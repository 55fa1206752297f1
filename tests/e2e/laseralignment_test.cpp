// The laser alignment end to end: velora on the emulated sensor and a private X server, driven
// by velora-ctl. The curtain of the scene shows each finger off the point it touches; one
// emulated person holds each blue dot of the alignment until it changes, another taps a purple
// square the test puts on the desktop before and after, where the pointer lands is read back.
// A reflection comes on while the dots are pressed, far from all of them, so that only the
// final check sees it.
#include "velorarun.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

namespace {

// The reflection: sensor (270, 170) is about screen (384, 240), over 250 pixels from every dot.
constexpr double reflectionOn = 26.0, reflectionOff = 46.0;
constexpr const char* scene = R"(screen 1280 800
corners 120 72 634 50 676 428 88 402
lens factory
noise 2
projector display
exposure 30
curtain 14 -10
user finger 0 target #00acea tolerance 12 reaction 0.3 hold change
user finger 0 target #a000ff tolerance 12 reaction 0.3 hold 0.6
reflection 270 170 6 160 from 26 until 46
)";

class LaserAlignmentRun : public ::testing::Test, protected VeloraRun {
protected:
    void TearDown() override
    {
        if (run)
            run->process.kill();
        // For a failed run, the service's log and the ground truth beside the pictures.
        if (run && HasFailure())
            for (const char* name : {"velora.log", "truth.txt"}) {
                const QString kept = QString(VELORA_SCREENSHOT_DIR "/laseralign-") + name;
                QFile::remove(kept);
                QFile::copy(QString::fromStdString(run->path(name)), kept);
            }
    }

    // The presses of the probe square: those whose target is its centre.
    std::vector<Press> probePresses(QPoint at) const
    {
        std::vector<Press> out;
        for (const Press& p : presses())
            if (std::hypot(p.targetX - at.x(), p.targetY - at.y()) <= 2)
                out.push_back(p);
        return out;
    }

    // Shows the square until a new press of it has been released; where the pointer was left
    // and where the finger touched.
    std::pair<QPointF, QPointF> tapProbe(QPoint at)
    {
        const size_t before = probePresses(at).size();
        // A purple square at a desktop point, over everything; the other person presses it.
        XSetWindowAttributes a{};
        a.override_redirect = True;
        a.background_pixel = 0xa000ff;
        const Window w = XCreateWindow(dpy, DefaultRootWindow(dpy), at.x() - 12, at.y() - 12, 24, 24, 0,
                                       CopyFromParent, InputOutput, CopyFromParent,
                                       CWOverrideRedirect | CWBackPixel, &a);
        XMapRaised(dpy, w);
        XSync(dpy, False);
        std::pair<QPointF, QPointF> result{{-1000, -1000}, {0, 0}};
        std::vector<Press> ps;
        if (waitUntil([&] { return (ps = probePresses(at)).size() > before && ps[before].released >= 0; }, 20000)) {
            // The release reaches the desktop a frame or two after the emulator lifts.
            QThread::msleep(300);
            const auto [x0, y0] = pointer();
            result = {QPointF(x0, y0), QPointF(ps[before].pressX, ps[before].pressY)};
        }
        XDestroyWindow(dpy, w);
        XSync(dpy, False);
        return result;
    }
};

// Of the nine dots of the auto correction on this screen, those that match beside the centre,
// where the check mark is drawn.
int count(const QImage& img, bool (*match)(QRgb))
{
    int n = 0;
    for (int x : {128, 640, 1152})
        for (int y : {80, 400, 720})
            n += match(img.pixel(x + 14, y));
    return n;
}

TEST_F(LaserAlignmentRun, AutoCorrectionBringsTheFingerOntoTheDotAndTheFinalCheckSeesLight)
{
    // The stylus calibration serves the finger too, so the alignment's result is saved.
    start(scene, userDir() + "stylus-velora.ini");
    ASSERT_EQ(ctl({"finger"}).first, 0) << qPrintable(log());
    // The finger engine learns its background first: a finger there then would become part of it.
    const double learnt = streamTime() + 3.0;
    while (streamTime() < learnt)
        QThread::msleep(20);
    const QPoint probe(640, 400);
    const auto [beforeAt, beforeTouch] = tapProbe(probe);
    const double beforeOff = std::hypot(beforeAt.x() - beforeTouch.x(), beforeAt.y() - beforeTouch.y());
    EXPECT_GT(beforeOff, 6.0) << "the curtain puts the finger off its touch before the alignment";

    // The dots come up before the reflection and take longer than it needs to come on.
    ASSERT_LT(streamTime(), reflectionOn - 5) << "the run is slower than the scene's timing";
    while (streamTime() < reflectionOn - 5)
        QThread::msleep(20);

    std::atomic<bool> aligning{true};
    QImage allGreen, someGreen;
    std::thread watch([&] {
        while (aligning) {
            const QImage img = grab();
            const int green = count(img, doneDotGreen), blue = count(img, activeDotBlue);
            if (green > 0 && blue > 0 && someGreen.isNull())
                someGreen = img;
            if (green == 9)
                allGreen = img;
            QThread::msleep(80);
        }
    });
    std::thread cancel([&] {
        const std::string light = "Light disturbance in laser alignment";
        waitUntil([&] { return run->fileText("velora.log").find(light) != std::string::npos; }, 90000);
        QThread::msleep(600);
        aligning = false;
        const QImage retry = grab();
        retry.save(VELORA_SCREENSHOT_DIR "/laseralign-retry.png");
        // The retry view: its two dark buttons in the middle of the screen.
        int button = 0;
        for (int y = 300; y < 500; ++y)
            for (int x = 300; x < 980; ++x)
                button += retry.pixel(x, y) == qRgb(0x4a, 0x4a, 0x4a);
        EXPECT_GT(button, 2000) << "Retry and Cancel are shown";
        // Left once the light is gone: the desktop's pointer comes back with no touch on.
        while (streamTime() < reflectionOff + 0.5)
            QThread::msleep(50);
        key("Escape");
    });
    const auto [code, text] = ctl({"align"});
    aligning = false;
    cancel.join();
    watch.join();
    EXPECT_EQ(code, 0) << qPrintable(text) << "\n" << qPrintable(log());
    EXPECT_NE(text, "cancelled") << "left at the final check, the run counts as done";

    ASSERT_FALSE(someGreen.isNull()) << "a dot turned green while others waited";
    someGreen.save(VELORA_SCREENSHOT_DIR "/laseralign-progress.png");
    ASSERT_FALSE(allGreen.isNull()) << "all nine dots turned green";
    allGreen.save(VELORA_SCREENSHOT_DIR "/laseralign-done.png");

    // Saved with the calibration in force: the shifts moved the way the curtain pushed.
    std::unique_ptr<Calibration> saved(Calibration::read((userDir() + "stylus-velora.ini").toLocal8Bit().constData()));
    ASSERT_TRUE(saved);
    using namespace ::testing;
    EXPECT_THAT(saved->shifts, AllOf(SizeIs(9), Each(Property(&EVector::length, Gt(1.0)))))
        << "every dot's shift was corrected";

    const auto [afterAt, afterTouch] = tapProbe(probe);
    EXPECT_LE(std::hypot(afterAt.x() - afterTouch.x(), afterAt.y() - afterTouch.y()), 3.0)
        << "pointer at " << afterAt.x() << "," << afterAt.y() << " for a touch at " << afterTouch.x() << ","
        << afterTouch.y() << "; before it was " << beforeOff << " off";
}

} // namespace
