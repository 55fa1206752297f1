#pragma once
// velora -v on the emulated sensor and a private X server of the scene's desktop size, asked
// by velora-ctl: what the tests of the guided procedures share.
#include "emulatedrun.h"
#include "xvfbserver.h"

#include <QStandardPaths>
#include <QThread>

#include <X11/Xlib.h>

#include <algorithm>
#include <cmath>
#include <memory>

inline QString userDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/Velora/";
}

inline double distanceToSegment(double px, double py, double ax, double ay, double bx, double by)
{
    const double dx = bx - ax, dy = by - ay;
    const double u = std::clamp(((px - ax) * dx + (py - ay) * dy) / (dx * dx + dy * dy), 0.0, 1.0);
    return std::hypot(px - (ax + u * dx), py - (ay + u * dy));
}

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
    void start(const std::string& scene, const QString& calibration = QString())
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
        // The service logs a lot while nobody reads: into a file, so that it never blocks on a pipe.
        run->process.setStandardOutputFile(QString::fromStdString(run->path("velora.log")));
        QDir().mkpath(userDir());
        if (!calibration.isEmpty()) {
            ASSERT_EQ(QProcess::execute(QFileInfo(VELORA_BINARY).absolutePath() + "/velora-scene-calibration",
                                        {QString::fromStdString(run->path("scene.txt")), calibration}),
                      0);
        }
        // The start-up's calibration load answers too, unasked: a command sent before it would
        // take that answer as its own, and its own answer would go to the next command.
        const QString answer = userDir() + "refifo";
        QFile::remove(answer);
        run->startVelora();
        const auto ready = [&] { return calibration.isEmpty() ? log().contains("Fifo position") : QFile::exists(answer); };
        QElapsedTimer t;
        t.start();
        while (!ready() && t.elapsed() < 60000)
            QThread::msleep(50);
        ASSERT_TRUE(ready()) << qPrintable(log());
    }

    // velora-ctl's exit code and line.
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

    // What the service has logged so far.
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
        std::ifstream in(run->path("truth.txt"));
        std::string line, last;
        while (std::getline(in, line))
            if (line.rfind("F ", 0) == 0)
                last = line;
        std::istringstream s(last);
        std::string f, frame;
        double t = 0;
        s >> f >> frame >> t;
        return t;
    }

    // The desktop pointer's positions until the stream has passed the given time; the first
    // is where it stood before.
    std::vector<std::pair<int, int>> pointerUntil(double streamSeconds)
    {
        std::vector<std::pair<int, int>> seen;
        QElapsedTimer t;
        t.start();
        while (t.elapsed() < 60000) {
            const auto p = pointer();
            if (seen.empty() || seen.back() != p)
                seen.push_back(p);
            QThread::msleep(5);
            if (t.elapsed() % 500 < 6 && streamTime() > streamSeconds)
                break;
        }
        return seen;
    }
};
