// The offset correction end to end in one process on a private X server: the facade on the
// emulated sensor runs it as the menu asks (id 24), its window is a real one, and the touch
// device's events reach that window through a relay that stands in for the kernel and a desktop:
// it decodes the device's slots and presses the X pointer where the desktop would put them.
#include "endtoendrun.h"
#include "ioffsetcorrection.h"
#include "multipointercontroller.h"
#include "procedurefactory.h"
#include "useroffsets.h"

#include <QFile>

#include <gmock/gmock.h>

extern "C" {
#include <xdo.h>
}
#include <X11/Xlib.h>

#include <atomic>

namespace {

const char* const scene = R"(
screen 1280 800
lens factory
stamp on
)";

// Where the desktop puts a touch: per axis, scaled about a point of its own, on the screen.
struct Desktop {
    double kx = 1, cx = 0, ky = 1, cy = 0;
    std::pair<int, int> land(double x, double y) const
    {
        return {std::clamp(int(std::lround(cx + kx * (x - cx))), 0, 1279),
                std::clamp(int(std::lround(cy + ky * (y - cy))), 0, 799)};
    }
};

// Each contact of the device becomes a left button press where the desktop puts it, its lift the
// release.
class Relay {
public:
    Desktop desktop;

    Relay() : xdo(xdo_new(nullptr)) {}
    ~Relay() { xdo_free(xdo); }

    void feed(const std::vector<Ev>& all)
    {
        decoder.feed(std::vector<Ev>(all.begin() + long(used), all.end()));
        used = all.size();
        for (size_t i = 0; i < decoder.gestures.size(); ++i) {
            const Gesture& g = decoder.gestures[i];
            if (i >= pressed.size() && !g.points.empty()) {
                const auto [x, y] = desktop.land(g.points.front().first, g.points.front().second);
                xdo_move_mouse(xdo, x, y, 0);
                xdo_mouse_down(xdo, CURRENTWINDOW, 1);
                pressed.push_back(false);
            }
            if (i < pressed.size() && g.closed && !pressed[i]) {
                xdo_mouse_up(xdo, CURRENTWINDOW, 1);
                pressed[i] = true;
            }
        }
    }
    size_t contacts() const { return pressed.size(); }

private:
    xdo_t* xdo;
    GestureDecoder decoder{1280, 800};
    size_t used = 0;
    std::vector<bool> pressed;
};

std::pair<int, int> pointer()
{
    Display* dpy = XOpenDisplay(nullptr);
    Window root, child;
    int x = -1, y = -1, wx, wy;
    unsigned m;
    XQueryPointer(dpy, DefaultRootWindow(dpy), &root, &child, &x, &y, &wx, &wy, &m);
    XCloseDisplay(dpy);
    return {x, y};
}

TEST(OffsetCorrection, MeasuresTheDesktopsScalingSoThatTouchesLandInPlace)
{
    EndToEndRun run;
    ProcedureFactory factory;
    run.procedures = &factory;
    Relay relay;
    const Desktop scaling{0.8, 560, 1.1, 340};
    std::string userFile;
    int phase = 0;
    std::atomic<bool> over{false};
    QObject context;
    std::vector<double> neutral, measured, neutralFile, measuredFile;
    std::vector<std::pair<int, int>> landed;
    const std::pair<int, int> touches[] = {{300, 200}, {1000, 650}};
    size_t before = 0;

    auto correct = [&](PipeFacade* f) {
        over = false;
        f->onIpcMessageReceived(24);
        ASSERT_TRUE(f->offsetCorrection) << "no offset correction started";
        QObject::connect(f->offsetCorrection, &IOffsetCorrection::finished, &context, [&] { over = true; },
                         Qt::QueuedConnection);
    };
    run.idle = [&] {
        PipeFacade* f = run.facade;
        relay.feed(run.events);
        if (phase == 0 && f->getCalibration() && f->pointerController->enabled) {
            userFile = run.files->path("user.ini");
            GS::instance()->userSettingsPath = userFile;
            QFile::remove(QString::fromStdString(userFile));
            phase = 1;
            correct(f);
        } else if (phase == 1 && over) {
            neutral = offsetSettings();
            neutralFile = savedOffsets(userFile);
            relay.desktop = scaling;
            phase = 2;
            correct(f);
        } else if (phase == 2 && over) {
            measured = offsetSettings();
            measuredFile = savedOffsets(userFile);
            phase = 3;
        } else if (phase >= 3 && phase < 3 + 2 * int(std::size(touches))) {
            const int k = (phase - 3) / 2;
            if ((phase - 3) % 2 == 0) {
                before = relay.contacts();
                f->emulateBlob(touches[k].first, touches[k].second);
                phase++;
            } else if (relay.contacts() > before) {
                QCoreApplication::processEvents();
                landed.push_back(pointer());
                phase++;
            }
        } else if (phase == 3 + 2 * int(std::size(touches))) {
            run.enough = true;
        }
    };
    ASSERT_NO_FATAL_FAILURE(run.run(scene, 1, 1, 90.0, 1280, 800));
    ASSERT_GE(phase, 3) << "the corrections did not end; phase " << phase;

    // A desktop that takes touches as they are: no offset, and the file says so.
    const std::vector<double> none{1, 1, 0, 0, 1, 1};
    EXPECT_THAT(neutral, ::testing::Pointwise(::testing::DoubleEq(), none));
    EXPECT_EQ(neutralFile, none);

    // The scaling desktop: both sides of x by 1 / 0.8, of y by 1 / 1.1, about its fixed point.
    using ::testing::DoubleNear;
    EXPECT_THAT(measured, ::testing::ElementsAre(DoubleNear(1.25, 0.02), DoubleNear(1.25, 0.02), DoubleNear(560, 10),
                                                 DoubleNear(340, 3), DoubleNear(1 / 1.1, 0.01), DoubleNear(1 / 1.1, 0.01)));
    EXPECT_THAT(measuredFile, ::testing::Pointwise(DoubleNear(1e-4), measured)) << "user.ini lines 5 to 10";

    ASSERT_EQ(landed.size(), std::size(touches)) << "touches after the correction";
    for (size_t i = 0; i < landed.size(); ++i) {
        EXPECT_NEAR(landed[i].first, touches[i].first, 3) << i;
        EXPECT_NEAR(landed[i].second, touches[i].second, 3) << i;
    }
}

} // namespace
