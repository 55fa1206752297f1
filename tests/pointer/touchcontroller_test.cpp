#include "devicepipe.h"
#include "globalsettings.h"
#include "messagelog.h"
#include "touchcontroller.h"

#include <QCoreApplication>
#include <QTest>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <tuple>
#include <vector>

// Xlib's macros clash with Qt's names: last.
#include "xtestdesktop.h"

namespace {

// The desktop is as wide and high as the device, so device units equal pixels here.
class TouchGestures : public ::testing::Test {
protected:
    DevicePipe pipe;
    std::unique_ptr<TouchController> tc;
    // No event loop runs in these cases; the right click has cases of its own.
    int rightClickTime = 600;

    void SetUp() override
    {
        GS* gs = GS::instance();
        gs->screenWidth = 32767;
        gs->screenHeight = 32767;
        gs->pointerMode = 1;
        gs->rightClickTolerance = 5;
        gs->rightClickTime = rightClickTime;
        tc.reset(new TouchController(pipe.makeTouch()));
        uinput_user_dev dev;
        ASSERT_TRUE(pipe.readRecord(&dev));
    }
    void down(double x, double y, int id) { tc->handleDown(EVector(x, y), id); }
    void move(double x, double y, int id) { tc->handleMove(EVector(x, y), id); }
    void up(double x, double y, int id) { tc->handleUp(EVector(x, y), id); }
    void tap(double x, double y, int id) { down(x, y, id), up(x, y, id); }

    // A down ('d'), move ('m') or up ('u'), and every event the device gets for it.
    struct Step {
        char kind;
        double x, y;
        int id;
        std::vector<Ev> events = {};
    };
    void run(const std::vector<Step>& steps)
    {
        for (const Step& s : steps) {
            auto step = s.kind == 'd' ? &TouchGestures::down : s.kind == 'm' ? &TouchGestures::move : &TouchGestures::up;
            (this->*step)(s.x, s.y, s.id);
            EXPECT_EQ(pipe.events(), s.events) << s.kind << " " << s.x << "," << s.y << " #" << s.id;
        }
    }
};

} // namespace

TEST_F(TouchGestures, APressIsReleasedOnlyBeyondTheToleranceAndReplayedFromItsStart)
{
    MessageLog log;
    // Exactly the tolerance stays undecided.
    run({{'d', 1000, 1000, 3}, {'m', 1003, 1000, 3}, {'m', 1000, 1005, 3},
         {'m', 1005.01, 1000, 3,
          contact(0, 3, 1000, 1000) + contact(0, 3, 1003, 1000) + contact(0, 3, 1000, 1005) + contact(0, 3, 1005, 1000)
              + contact(0, 3, 1005, 1000)}});
    EXPECT_EQ(log.count("stop right click timer isMoving: false isRightDown: false isPressed: true len: 5.01"), 1);
    // A released contact passes straight through.
    run({{'m', 1100, 1020, 3, contact(0, 3, 1100, 1020)}, {'u', 1100, 1020, 3, lift(0)}});
}

TEST_F(TouchGestures, AnUndecidedStrokeIsReplayedAtItsLiftWithEveryPoint)
{
    MessageLog log;
    // A tap is held back to its lift, then goes out as down and up, its id in 16 bits.
    run({{'d', 100, 200, 70000}, {'u', 100, 200, 70000, contact(0, 4464, 100, 200) + lift(0)}});
    run({{'d', 500, 500, 4}, {'m', 501, 500, 4}, {'m', 502, 501, 4},
         {'u', 503, 501, 4, contact(0, 4, 500, 500) + contact(0, 4, 501, 500) + contact(0, 4, 502, 501) + lift(0)}});
    EXPECT_EQ(std::tuple(log.count("flushing in handle up "), tc->isPressed.load(), tc->slotsById.size()),
              std::tuple(2, false, 0u));
    // A stroke whose down was never seen (it began off the screen) comes out whole as well;
    // an up without a contact sends nothing.
    run({{'m', 10, 10, 9}, {'m', 20, 10, 9}, {'u', 30, 10, 9, contact(0, 9, 10, 10) + contact(0, 9, 20, 10) + lift(0)},
         {'u', 30, 10, 9}});
}

TEST_F(TouchGestures, ASecondFingerGoesOutAtOnceAheadOfTheFirstFingersReplay)
{
    run({{'d', 1000, 1000, 1}, {'m', 1001, 1000, 1}, {'d', 5000, 5000, 2, contact(0, 2, 5000, 5000)}});
    EXPECT_TRUE(tc->isMoving);
    run({{'m', 1002, 1000, 1, contact(1, 1, 1000, 1000) + contact(1, 1, 1001, 1000) + contact(1, 1, 1002, 1000)},
         {'m', 5010, 5000, 2, contact(0, 2, 5010, 5000)}, {'u', 1002, 1000, 1, lift(1)}});
    // Any finger's lift ends the press; the other finger goes on live.
    EXPECT_FALSE(tc->isPressed);
    run({{'m', 5020, 5000, 2, contact(0, 2, 5020, 5000)}, {'u', 5020, 5000, 2, lift(0)}});
}

TEST_F(TouchGestures, ResetFreesTheSlotsButOpenContactsStillGetTheirUp)
{
    down(1000, 1000, 1);
    move(1100, 1000, 1);
    pipe.events();
    tc->reset();
    tc->reset();
    EXPECT_TRUE(pipe.events().empty());
    // The press is still on, so the next finger is a second one, and slot 0 is free again.
    run({{'d', 3000, 3000, 2, contact(0, 2, 3000, 3000)}, {'u', 1100, 1000, 1, lift(0)}, {'u', 3000, 3000, 2, lift(0)}});
}

// Positions scale over the desktop, whose new size holds from the next conversion on. Each
// side of the logical centre that the offset correction measured is stretched by its own
// ratio (left, right, top, bottom); neutral values change nothing.
TEST_F(TouchGestures, TapsScaleOverTheDesktopAndStretchAboutTheMeasuredCentre)
{
    GS* gs = GS::instance();
    const struct {
        int width, height;
        double centre, left, right, top, bottom, x, y;
        int wantX, wantY;
    } cases[] = {
        {1920, 1080, 0, 1, 1, 1, 1, 1, 540, 17, 16384},
        {1920, 1080, 0, 1, 1, 1, 1, 1920, 1080, 32767, 32767},
        {3840, 1080, 0, 1, 1, 1, 1, 1920, 0, 16384, 0},
        {32767, 32767, 1000, 1.25, 1.5, 0.5, 0.8, 1000, 1000, 1000, 1000},
        {32767, 32767, 1000, 1.25, 1.5, 0.5, 0.8, 600, 700, 1000 - 500, 1000 - 150},
        {32767, 32767, 1000, 1.25, 1.5, 0.5, 0.8, 1400, 1200, 1000 + 600, 1000 + 160},
        {32767, 32767, 0, 1, 1, 1, 1, 600, 700, 600, 700},
    };
    int id = 0;
    for (const auto& c : cases) {
        gs->screenWidth = c.width;
        gs->screenHeight = c.height;
        gs->offsetC = gs->offsetD = c.centre;
        gs->offsetLeft = c.left;
        gs->offsetRight = c.right;
        gs->offsetTop = c.top;
        gs->offsetBottom = c.bottom;
        tap(c.x, c.y, ++id);
        EXPECT_EQ(pipe.events(), contact(0, id, c.wantX, c.wantY) + lift(0)) << c.x << "," << c.y << " on " << c.width;
    }
    // Beyond the desktop the position wraps.
    gs->screenWidth = 1920;
    EXPECT_EQ(TouchController::toDeviceX(-5), -85);
    EXPECT_EQ(TouchController::toDeviceX(3000), -14338);
}

namespace {

// The right click and single-pointer mode reach the X server; handlers run on a thread
// of their own as on the image thread, while this thread runs the event loop.
class TouchOnDesktop : public OnSuiteDesktop<TouchGestures> {
protected:
    using B = XTestDesktop::Button;
    void SetUp() override
    {
        ASSERT_NE(desk->dpy, nullptr);
        rightClickTime = 100;
        TouchGestures::SetUp();
        GS::instance()->screenWidth = 1280;
        GS::instance()->screenHeight = 1024;
        desk->pendingButtons();
    }
    template <typename Steps> void onImageThread(Steps steps) { std::thread(steps).join(); }
    std::vector<B> nextButtons(int n)
    {
        std::vector<B> out;
        while (n-- > 0)
            out.push_back(desk->nextButton([] { QCoreApplication::processEvents(); }));
        return out;
    }
};

using ::testing::ElementsAre;

} // namespace

TEST_F(TouchOnDesktop, AStillPressBecomesOneRightClickThroughTheMouseAndNoContact)
{
    onImageThread([&] { down(300, 300, 1), move(302, 301, 1); });
    // At the last position.
    EXPECT_THAT(nextButtons(2), ElementsAre(B{true, 3, 302, 301}, B{false, 3, 302, 301}));
    EXPECT_TRUE(tc->isRightDown);

    // No contact, neither then nor at the lift.
    onImageThread([&] { move(400, 400, 1), up(400, 400, 1); });
    EXPECT_EQ(std::tuple(pipe.events(), tc->isPressed.load(), tc->isRightDown.load()),
              std::tuple(std::vector<Ev>{}, false, false));

    onImageThread([&] { tap(500, 500, 2); });
    EXPECT_EQ(pipe.events(), contact(0, 2, TouchController::toDeviceX(500), TouchController::toDeviceY(500)) + lift(0))
        << "the next tap is an ordinary one";
}

TEST_F(TouchOnDesktop, NoRightClickOnceASecondFingerIsDown)
{
    onImageThread([&] { down(300, 300, 1), down(600, 300, 2); });
    QTest::qWait(400);
    EXPECT_EQ(std::tuple(tc->isRightDown.load(), desk->pendingButtons()), std::tuple(false, std::vector<B>{}));
    onImageThread([&] { up(300, 300, 1), up(600, 300, 2); });
}

TEST_F(TouchOnDesktop, InSinglePointerModeGesturesGoToTheMouseAndTheDeviceStaysSilent)
{
    GS::instance()->pointerMode = 0;
    onImageThread([&] { tap(200, 150, 1); });
    EXPECT_THAT(nextButtons(2), ElementsAre(B{true, 1, 200, 150}, B{false, 1, 200, 150}));
    // Nor is the touch state touched.
    EXPECT_EQ(std::tuple(pipe.events(), tc->isPressed.load()), std::tuple(std::vector<Ev>{}, false));
    GS::instance()->pointerMode = 1;
}
