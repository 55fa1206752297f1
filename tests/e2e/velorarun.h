#pragma once
// velora -v on the emulated sensor and a private X server of the scene's desktop size, asked
// by velora-ctl: what the tests of the guided procedures, the viewer and the alignment share.
#include "calibration.h"
#include "emulatedrun.h"
#include "streamclock.h"
#include "xvfbserver.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <xdo.h>
}
// The screen tests' pictures and window properties; last, for Xlib's macros.
#include "xscreen.h"

using Press = EmulatorFiles::Press;

class VeloraRun {
public:
    XvfbServer x;
    std::unique_ptr<EmulatedRun> run;
    Display* dpy = nullptr;

    ~VeloraRun()
    {
        if (run)
            run->process.kill();
        if (dpy)
            XCloseDisplay(dpy);
    }

    // calibration: the service starts with this file, the scene's own, as its stylus calibration.
    void start(const std::string& scene, const QString& calibration = QString(), const char* screen = "1280x800x24")
    {
        ASSERT_TRUE(x.start(screen)) << x.failure;
        dpy = XOpenDisplay(x.display.c_str());
        ASSERT_TRUE(dpy);
        // The X server has pointed DISPLAY at itself, for velora and velora-ctl alike.
        run = std::make_unique<EmulatedRun>(scene);
        QProcessEnvironment env = run->process.processEnvironment();
        env.insert("QT_QPA_PLATFORM", "xcb");
        env.insert("QT_QUICK_BACKEND", "software");
        run->process.setProcessEnvironment(env);
        // The service logs a lot while nobody reads: into a file, so that it never blocks on a pipe.
        run->process.setStandardOutputFile(QString::fromStdString(run->path("velora.log")));
        QDir().mkpath(userDir());
        if (!calibration.isEmpty()) {
            ASSERT_EQ(sceneCalibration(run->path("scene.txt"), calibration), 0);
        }
        // The start-up's calibration load answers too, unasked: a command sent before it would
        // take that answer as its own, and its own answer would go to the next command.
        const QString answer = userDir() + "refifo";
        QFile::remove(answer);
        run->startVelora();
        ASSERT_TRUE(waitUntil([&] { return calibration.isEmpty() ? log().contains("Fifo position") : QFile::exists(answer); },
                              60000))
            << qPrintable(log());
    }

    // velora-ctl's exit code and line.
    std::pair<int, QString> ctl(const QStringList& command)
    {
        QProcess p;
        p.start(toolPath("velora-ctl"), command);
        p.waitForFinished(180000);
        return {p.exitCode(), QString::fromLocal8Bit(p.readAllStandardOutput()).trimmed()};
    }

    // What the service has logged so far.
    QString log() const { return QString::fromStdString(run->fileText("velora.log")).right(4000); }

    // A key typed on the X server, to whatever window has the focus.
    void key(const char* name, useconds_t delay = 0)
    {
        xdo_t* xdo = xdo_new(x.display.c_str());
        xdo_send_keysequence_window(xdo, CURRENTWINDOW, name, delay);
        xdo_free(xdo);
    }

    std::pair<int, int> pointer()
    {
        Window root, child;
        int x0, y0, wx, wy;
        unsigned m;
        XQueryPointer(dpy, DefaultRootWindow(dpy), &root, &child, &x0, &y0, &wx, &wy, &m);
        return {x0, y0};
    }

    QImage grab() { return ::grab(dpy); }

    double streamTime() const { return streamSeconds(run->path("truth.txt")); }

    std::vector<Press> presses() const { return run->presses(); }

    // The file holds the 25 dots (of these margins, if given), each point where a press of that
    // kind (any, if empty) on the dot, the last one within `near` desktop pixels of it, touched
    // the sensor.
    void expectPressedGrid(const QString& file, const std::string& kind, double near, double marginX = -1,
                           double marginY = -1)
    {
        SCOPED_TRACE(file.toStdString());
        std::unique_ptr<Calibration> c(Calibration::read(file.toLocal8Bit().constData()));
        ASSERT_TRUE(c) << "the file was written";
        ASSERT_EQ(c->srcPoints.size(), 25u);
        if (marginX >= 0) {
            EXPECT_DOUBLE_EQ(c->marginX, marginX);
            EXPECT_DOUBLE_EQ(c->marginY, marginY);
        }
        const std::vector<Press> ps = presses();
        const std::vector<EVector> dst = c->calcDstPoints(1280, 800);
        for (size_t i = 0; i < dst.size(); ++i) {
            const Press* last = nullptr;
            for (const Press& p : ps)
                if ((kind.empty() || p.kind == kind) && std::hypot(p.targetX - dst[i].x, p.targetY - dst[i].y) < near)
                    last = &p;
            ASSERT_TRUE(last) << "no " << kind << " press at dot " << i;
            EXPECT_NEAR(c->srcPoints[i].x, last->sensorX, 1.0) << i;
            EXPECT_NEAR(c->srcPoints[i].y, last->sensorY, 1.0) << i;
        }
    }

    // The scene's stroke from (200, 200) to (1100, 620), played until the given stream time,
    // moved the desktop's pointer along its path to its end.
    void expectPointerFollowsStroke(double untilStreamSeconds)
    {
        // The first position is where the pointer stood before.
        std::vector<std::pair<int, int>> seen;
        QElapsedTimer t;
        t.start();
        while (t.elapsed() < 60000) {
            const auto p = pointer();
            if (seen.empty() || seen.back() != p)
                seen.push_back(p);
            QThread::msleep(5);
            if (t.elapsed() % 500 < 6 && streamTime() > untilStreamSeconds)
                break;
        }
        ASSERT_GT(seen.size(), 20u) << "the stroke moved the pointer";
        double worst = 0;
        for (size_t i = 1; i < seen.size(); ++i) {
            const double px = seen[i].first - 200, py = seen[i].second - 200;
            const double u = std::clamp((px * 900 + py * 420) / (900.0 * 900 + 420 * 420), 0.0, 1.0);
            worst = std::max(worst, std::hypot(px - u * 900, py - u * 420));
        }
        EXPECT_LE(worst, 3.0) << "pointer positions off the stroke, of " << seen.size();
        EXPECT_LE(std::hypot(seen.back().first - 1100, seen.back().second - 620), 10.0) << "the stroke's end was reached";
    }
};
