// The offset correction against stand-in desktops that scale and shift the touches they get:
// each touch comes back as a click of the window where that desktop put it.
#include "offsetcorrection.h"
#include "procedurestandins.h"
#include "useroffsets.h"

#include <QTemporaryDir>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

namespace {

using ::testing::DoubleNear;
using ::testing::ElementsAre;
using ::testing::Pointwise;

// received = centre + scale * (sent - centre) + shift, per axis, with another scale above the
// centre if given; the pointer stays on the screen.
struct Axis {
    double scale = 1, centre = 0, shift = 0, above = 0;
    int land(int sent, int extent) const
    {
        const double k = sent > centre && above ? above : scale;
        const double r = std::round(centre + k * (sent - centre) + shift);
        return static_cast<int>(std::clamp(r, 0.0, extent - 1.0));
    }
};

struct Case {
    const char* desktop;
    Axis x, y;
    // What the settings hold afterwards.
    double left, right, centreX, top, bottom, centreY;
};

class OffsetRun : public ::testing::Test {
protected:
    GS* gs = GS::instance();
    QTemporaryDir dir;
    ScopedSetting<std::string> file{gs->userSettingsPath, dir.filePath("user.ini").toStdString()};
    RecordingEmitter emitter;
    RecordingScreen screen;

    void SetUp() override
    {
        gs->pointerMode = 0;
        gs->screenWidth = 1000;
        gs->screenHeight = 800;
    }
    void TearDown() override
    {
        gs->screenWidth = 0;
        gs->screenHeight = 0;
    }

    // One run on this desktop; false if it never ended.
    bool run(const Axis& x, const Axis& y)
    {
        OffsetCorrection oc(&screen, &emitter);
        emitter.desktop = [&](int sx, int sy) {
            EXPECT_EQ(gs->pointerMode, 1) << "touches, not mouse clicks, while it measures";
            screen.click(x.land(sx, gs->screenWidth), y.land(sy, gs->screenHeight));
        };
        QObject context;
        std::atomic<bool> over{false};
        QObject::connect(&oc, &IOffsetCorrection::finished, &context, [&] { over = true; }, Qt::QueuedConnection);
        oc.start();
        const bool ended = waitFor([&] { return over.load(); }, 30000);
        emitter.desktop = nullptr;
        return ended;
    }
};

TEST_F(OffsetRun, RatiosAndCentreFollowFromWhereTheTouchesLand)
{
    const Case cases[] = {
        {"passes every touch as it is", {}, {}, 1, 1, 0, 1, 1, 0},
        // The x search walks left past the fixed point and comes back in half steps.
        {"scales about an off-centre point", {0.8, 455}, {1.1, 340}, 1.25, 1.25, 455, 1 / 1.1, 1 / 1.1, 340},
        {"misses the centre by 3 only", {0.9, 470}, {}, 470.0 / 426, 470.0 / 420, 500, 1, 1, 0},
        // The right ratio is taken when it is below the band, or when the left one is above it.
        {"stretches only its right half", {1, 500, 0, 0.9}, {}, 1, 1, 0, 1, 1, 0},
        // No point comes back where it was sent: the centre stays in the middle.
        {"shifts right", {1, 0, 12}, {}, 470.0 / 458, 470.0 / 482, 500, 1, 1, 0},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(run(c.x, c.y)) << c.desktop;
        EXPECT_FALSE(screen.visible) << c.desktop;
        EXPECT_EQ(gs->pointerMode, 0) << c.desktop << ": the user's pointer mode is back";
        // In user.ini's order: left, right, C, D, top, bottom.
        const std::vector<double> got = offsetSettings();
        EXPECT_THAT(got, ElementsAre(DoubleNear(c.left, 0.01), DoubleNear(c.right, 0.01), DoubleNear(c.centreX, 2),
                                     DoubleNear(c.centreY, 2), DoubleNear(c.top, 0.01), DoubleNear(c.bottom, 0.01)))
            << c.desktop;
        EXPECT_THAT(savedOffsets(gs->userSettingsPath), Pointwise(DoubleNear(1e-4), got)) << c.desktop;
    }
}

} // namespace
