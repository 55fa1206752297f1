// The primary pointer output: the uinput device of the touch output and the events it writes,
// the controller that turns strokes into contacts, right clicks and, in single-pointer mode,
// mouse buttons, and the mouse itself on a private X server.
#include "devicepipe.h"
#include "globalsettings.h"
#include "linuxmouse.h"
#include "linuxmousecontroller.h"
#include "messagelog.h"
#include "touchcontroller.h"

#include <QCoreApplication>
#include <QTest>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

// Xlib's macros clash with Qt's names: last.
#include "xtestdesktop.h"

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::FieldsAre;
using ::testing::IsEmpty;
using B = XTestDesktop::Button;
using Pos = std::pair<int, int>;

namespace {

// A press and its release at one place.
std::vector<B> click(unsigned number, int x, int y) { return {{true, number, x, y}, {false, number, x, y}}; }
std::vector<B> operator+(std::vector<B> a, const std::vector<B>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Handlers run on a thread of their own, as on the image thread, while this one runs the event loop.
template <typename Steps> void onImageThread(Steps steps) { std::thread(steps).join(); }

// The private X server of the process, for every suite: the mouse keeps its connection to the
// first server it meets.
XTestDesktop* desktop()
{
    static XTestDesktop desk;
    static const bool started = desk.start();
    EXPECT_TRUE(started) << "X server: " << desk.failure;
    return &desk;
}

// The next n button events on it; runLoop runs the event loop while waiting, for the right click.
std::vector<B> nextButtons(int n, bool runLoop = false)
{
    std::vector<B> out;
    while (n-- > 0)
        out.push_back(runLoop ? desktop()->nextButton([] { QCoreApplication::processEvents(); }) : desktop()->nextButton());
    return out;
}

TEST(TouchDevice, CreationDeclaresTheSlottedDeviceThenWritesItsRecordThenCreates)
{
    DevicePipe pipe;
    delete pipe.makeTouch();
    // Bytes written by each call tell the record's place: after the declarations, before creation.
    const int fd = pipe.writeEnd, record = int(sizeof(uinput_user_dev));
    std::vector<DevicePipe::Call> want = {{DevicePipe::Open, 0, O_WRONLY | O_NONBLOCK, 0, 0, "/dev/uinput"}};
    for (auto [request, value] : std::vector<std::pair<unsigned long, int>>{{UI_SET_EVBIT, EV_KEY},
             {UI_SET_KEYBIT, BTN_TOUCH}, {UI_SET_EVBIT, EV_ABS}, {UI_SET_ABSBIT, ABS_X}, {UI_SET_ABSBIT, ABS_Y},
             {UI_SET_ABSBIT, ABS_MT_POSITION_X}, {UI_SET_ABSBIT, ABS_MT_POSITION_Y},
             {UI_SET_ABSBIT, ABS_MT_TRACKING_ID}, {UI_SET_ABSBIT, ABS_MT_SLOT}})
        want.push_back({DevicePipe::Control, request, value, fd, 0, ""});
    want.push_back({DevicePipe::Control, UI_DEV_CREATE, 0, fd, record, ""});
    want.push_back({DevicePipe::Control, UI_DEV_DESTROY, 0, fd, record, ""});
    want.push_back({DevicePipe::Close, 0, 0, fd, 0, ""});
    EXPECT_EQ(pipe.calls, want);

    uinput_user_dev dev;
    ASSERT_TRUE(pipe.readRecord(&dev));
    EXPECT_STREQ(dev.name, "velora-multitouch");
    EXPECT_THAT(dev.id, FieldsAre(BUS_VIRTUAL, 0xCEEF, 1, 1));
    EXPECT_EQ(dev.ff_effects_max, 0u);
    std::vector<int> max(ABS_CNT, 0), min(ABS_CNT, 0);
    for (int axis : {ABS_X, ABS_Y, ABS_MT_POSITION_X, ABS_MT_POSITION_Y, ABS_MT_TRACKING_ID})
        max[axis] = 32767;
    max[ABS_MT_SLOT] = 99;
    min[ABS_MT_TRACKING_ID] = -1;
    EXPECT_THAT(dev.absmax, ElementsAreArray(max));
    EXPECT_THAT(dev.absmin, ElementsAreArray(min));
    EXPECT_THAT(dev.absfuzz, Each(0));
    EXPECT_THAT(dev.absflat, Each(0));
    EXPECT_TRUE(pipe.events().empty()) << "neither creation nor destruction sends events";
}

TEST(TouchDevice, WithoutADeviceEveryStepIsLoggedAndTheTouchRunsOn)
{
    MessageLog log;
    DevicePipe pipe;
    pipe.openResult = -1;
    pipe.failControls = true;
    std::unique_ptr<Touch> touch(pipe.makeTouch());

    const std::vector<std::string> creation = {
        "error: ioctl", "error: ioctl UI_SET_EVBIT EV_SYN", "error: ioctl UI_SET_EVBIT BTN_TOUCH",
        "error: ioctl UI_SET_EVBIT EV_ABS", "error: ioctl UI_SETEVBIT ABS_X", "error: ioctl UI_SETEVBIT ABS_Y",
        "error: ioctl UI_SETEVBIT ABS_MT_POSITION_X", "error: ioctl UI_SETEVBIT ABS_MT_POSITION_Y",
        "error: ABS_MT_TRACKING_ID", "error: ABS_MT_SLOT", "error: write", "error: ioctl"};
    EXPECT_EQ(log.lines(), creation);
    EXPECT_EQ(pipe.calls.size(), 11u) << "no step is skipped";

    EXPECT_EQ(touch->suinput_write(EV_SYN, SYN_REPORT, 0), 1);
    EXPECT_EQ(touch->down(10, 10, 1), 0);
    EXPECT_EQ(touch->down(10, 10, 2), 1) << "bookkeeping goes on without a device";
    EXPECT_EQ(log.count("error: write()"), 11);

    // Descriptor 0 stands for no device: nothing is written to it, not even the record.
    DevicePipe zero;
    zero.openResult = 0;
    std::unique_ptr<Touch> silent(zero.makeTouch());
    EXPECT_EQ(silent->suinput_write(EV_ABS, ABS_MT_SLOT, 3), 0);
    silent->down(1, 2, 3);
    EXPECT_EQ(log.count("error: write()"), 11);
    EXPECT_EQ(zero.pendingBytes(), 0);
}

// The desktop is as wide and high as the device, so device units equal pixels here.
class TouchGestures : public ::testing::Test {
protected:
    DevicePipe pipe;
    std::unique_ptr<TouchController> tc;
    // The controller's device, for the cases of the device alone.
    Touch* touch = nullptr;
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
        touch = tc->touch;
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

// A touch on a working device whose record has been read: what follows are events.
using TouchContacts = TouchGestures;

// The slotted protocol itself, with ids of 16 bits, is in the gesture cases below.
TEST_F(TouchContacts, IdsAreTruncatedToSixteenBits)
{
    touch->down(0, 0, 40000);
    EXPECT_EQ(pipe.events(), contact(0, -25536, 0, 0)) << "truncated, not clamped";
}

TEST_F(TouchContacts, SlotsAreTheFirstFreeOfAHundredAndTheHundredAndFirstTakesSlotZero)
{
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(touch->down(i, i, 1000 + i), i);
    EXPECT_EQ(touch->down(5, 5, 555), 0);
    EXPECT_EQ(touch->slotIds[0], 1000) << "the extra contact holds no slot";
    EXPECT_FALSE(touch->allFree);

    touch->up(0, 0, 42);
    EXPECT_EQ(touch->slotIds[42], -1);
    EXPECT_EQ(touch->down(1, 1, 77), 42) << "a freed slot is taken again first";

    touch->up(0, 0, 3);
    touch->up(0, 0, 1);
    EXPECT_EQ(touch->down(1, 1, 78), 1);
    EXPECT_EQ(touch->down(1, 1, 79), 3);
}

TEST_F(TouchContacts, ResetFreesAllSlotsSilently)
{
    touch->down(1, 1, 1);
    touch->down(2, 2, 2);
    pipe.events();

    touch->reset();
    EXPECT_TRUE(touch->allFree);
    EXPECT_TRUE(pipe.events().empty()) << "open contacts stay open in the device";
    EXPECT_EQ(touch->down(3, 3, 3), 0);
    EXPECT_FALSE(touch->allFree);
    // An up leaves the flag alone: the next reset still clears.
    touch->up(0, 0, 0);
    EXPECT_FALSE(touch->allFree);
    touch->down(4, 4, 4);
    touch->reset();
    EXPECT_EQ(touch->slotIds[0], -1);
}

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
    EXPECT_TRUE(pipe.lastTimesZero) << "events carry no time";
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

// The right click and single-pointer mode reach the X server.
class TouchOnDesktop : public TouchGestures {
protected:
    XTestDesktop* desk = desktop();
    void SetUp() override
    {
        ASSERT_NE(desk->dpy, nullptr);
        rightClickTime = 100;
        TouchGestures::SetUp();
        GS::instance()->screenWidth = 1280;
        GS::instance()->screenHeight = 1024;
        desk->pendingButtons();
    }
};

TEST_F(TouchOnDesktop, AStillPressBecomesOneRightClickThroughTheMouseAndNoContact)
{
    onImageThread([&] { down(300, 300, 1), move(302, 301, 1); });
    // At the last position.
    EXPECT_EQ(nextButtons(2, true), click(3, 302, 301));
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
    EXPECT_EQ(nextButtons(2, true), click(1, 200, 150));
    // Nor is the touch state touched.
    EXPECT_EQ(std::tuple(pipe.events(), tc->isPressed.load()), std::tuple(std::vector<Ev>{}, false));
    GS::instance()->pointerMode = 1;
}

class MouseOnDesktop : public ::testing::Test {
protected:
    XTestDesktop* desk = desktop();
    std::unique_ptr<LinuxMouseController> mc;

    void SetUp() override
    {
        ASSERT_NE(desk->dpy, nullptr);
        GS* gs = GS::instance();
        gs->rightClickTolerance = 5;
        gs->doubleClickTolerance = 15;
        gs->doubleClickTime = 700;
        // Cases that want the right click lower this; the others never run the event loop.
        gs->rightClickTime = 600;
        desk->pendingButtons();
    }
    void make() { mc.reset(new LinuxMouseController()); }

    void down(double x, double y) { mc->handleDown(EVector(x, y), 1); }
    void move(double x, double y) { mc->handleMove(EVector(x, y), 1); }
    void up(double x, double y) { mc->handleUp(EVector(x, y), 1); }
    void tap(double x, double y) { down(x, y), up(x, y); }

    // Waits until the server has done everything sent so far, by a move to a known place.
    std::vector<B> buttonsSoFar()
    {
        // Alternating, so that the marker is always a real move.
        static int marker = 0;
        marker = 3 - marker;
        LinuxMouse::instance()->Move(marker, 1);
        desk->pointerAt(marker, 1);
        return desk->pendingButtons();
    }
};

TEST_F(MouseOnDesktop, TheMouseMovesToWholePixelsAndPressesEachButton)
{
    LinuxMouse* mouse = LinuxMouse::instance();
    mouse->Move(210.9, 160.2);
    EXPECT_EQ(desk->pointerAt(210, 160), Pos(210, 160));

    for (auto call : {&LinuxMouse::LeftPress, &LinuxMouse::LeftRelease, &LinuxMouse::MiddlePress,
                      &LinuxMouse::MiddleRelease, &LinuxMouse::RightPress, &LinuxMouse::RightRelease,
                      &LinuxMouse::WheelUp, &LinuxMouse::WheelDown})
        (mouse->*call)();
    EXPECT_EQ(nextButtons(10), click(1, 210, 160) + click(2, 210, 160) + click(3, 210, 160) + click(4, 210, 160)
                            + click(5, 210, 160));
}

TEST_F(MouseOnDesktop, ATapFollowsWithoutAButtonAndClicksAtTheLift)
{
    make();
    down(200, 150);
    move(203, 152);
    EXPECT_EQ(desk->pointerAt(203, 152), Pos(203, 152)) << "the pointer follows at once";
    EXPECT_THAT(desk->pendingButtons(), IsEmpty()) << "no button before the meaning is known";

    up(204, 152);
    EXPECT_THAT(nextButtons(2), ElementsAre(B{true, 1, 200, 150}, B{false, 1, 204, 152}));
    EXPECT_TRUE(mc->path.empty());
}

TEST_F(MouseOnDesktop, ADragPressesOnceBeyondTheDiagonalToleranceAndReleasesAtTheLift)
{
    make();
    EXPECT_EQ(mc->rightClickTolerance, 7);
    down(300, 300);
    move(307, 300);
    EXPECT_EQ(desk->pointerAt(307, 300), Pos(307, 300));
    EXPECT_THAT(desk->pendingButtons(), IsEmpty()) << "exactly the tolerance stays undecided";

    move(300, 307.01);
    EXPECT_THAT(nextButtons(1), ElementsAre(B{true, 1, 300, 300}));
    unsigned int mask = 0;
    EXPECT_EQ(desk->pointerAt(300, 307, &mask), Pos(300, 307)) << "the path is walked again";
    EXPECT_TRUE(mask & Button1Mask);

    move(350, 320);
    EXPECT_EQ(desk->pointerAt(350, 320, &mask), Pos(350, 320));
    EXPECT_TRUE(mask & Button1Mask) << "the button stays down while dragging";
    up(360, 330);
    EXPECT_THAT(nextButtons(1), ElementsAre(B{false, 1, 360, 330}));
    EXPECT_THAT(buttonsSoFar(), IsEmpty()) << "one press, one release";
}

TEST_F(MouseOnDesktop, AStillPressBecomesARightClickAtTheMovedPositionAndNothingFollows)
{
    GS::instance()->rightClickTime = 100;
    make();
    MessageLog log;

    onImageThread([&] { down(400, 300), move(403, 300); });
    EXPECT_EQ(nextButtons(2, true), click(3, 403, 300));
    EXPECT_EQ(log.count("l  right click!"), 1);

    onImageThread([&] { move(450, 320); });
    unsigned int mask = 0;
    EXPECT_EQ(desk->pointerAt(450, 320, &mask), Pos(450, 320)) << "the pointer still follows";
    EXPECT_EQ(mask & (Button1Mask | Button3Mask), 0u);
    onImageThread([&] { up(450, 320); });
    EXPECT_THAT(buttonsSoFar(), IsEmpty()) << "the lift sends nothing";
    EXPECT_FALSE(mc->isRightDown);

    onImageThread([&] { tap(500, 300); });
    EXPECT_EQ(nextButtons(2, true), click(1, 500, 300));
    EXPECT_EQ(log.count("l  right click!"), 1);
}

TEST_F(MouseOnDesktop, ASecondTapSoonAndNearIsADoubleClickOfTwoOrdinaryClicks)
{
    const std::string line = "l********** double click triggered! ***********";
    GS::instance()->doubleClickTime = 60000;
    make();
    MessageLog log;

    tap(200, 150);
    tap(210, 160);
    EXPECT_EQ(log.count(line), 1);
    EXPECT_EQ(nextButtons(4), click(1, 200, 150) + click(1, 210, 160));

    tap(226, 175);
    EXPECT_EQ(log.count(line), 1) << "22 pixels from the last down is too far";

    GS::instance()->doubleClickTime = 30;
    mc->onResolutionChanged(0, 0);
    QTest::qWait(100);
    tap(226, 175);
    EXPECT_EQ(log.count(line), 1) << "too late";
    EXPECT_EQ(buttonsSoFar().size(), 4u) << "both clicks are sent all the same";
}

} // namespace
