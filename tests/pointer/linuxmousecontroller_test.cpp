#include "globalsettings.h"
#include "linuxmouse.h"
#include "linuxmousecontroller.h"
#include "messagelog.h"

#include <QCoreApplication>
#include <QTest>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

// Xlib's macros clash with Qt's names: last.
#include "xtestdesktop.h"

namespace {

using Pos = std::pair<int, int>;
using B = XTestDesktop::Button;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A press and its release at one place.
std::vector<B> click(unsigned number, int x, int y) { return {{true, number, x, y}, {false, number, x, y}}; }
std::vector<B> operator+(std::vector<B> a, const std::vector<B>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class MouseOnDesktop : public OnSuiteDesktop<> {
protected:
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

    // The next n button events; runLoop runs the event loop while waiting, for the right click.
    std::vector<B> next(int n, bool runLoop = false)
    {
        std::vector<B> out;
        while (n-- > 0)
            out.push_back(runLoop ? desk->nextButton([] { QCoreApplication::processEvents(); }) : desk->nextButton());
        return out;
    }
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

} // namespace

TEST_F(MouseOnDesktop, TheMouseMovesToWholePixelsAndPressesEachButton)
{
    LinuxMouse* mouse = LinuxMouse::instance();
    mouse->Move(210.9, 160.2);
    EXPECT_EQ(desk->pointerAt(210, 160), Pos(210, 160));

    for (auto call : {&LinuxMouse::LeftPress, &LinuxMouse::LeftRelease, &LinuxMouse::MiddlePress,
                      &LinuxMouse::MiddleRelease, &LinuxMouse::RightPress, &LinuxMouse::RightRelease,
                      &LinuxMouse::WheelUp, &LinuxMouse::WheelDown})
        (mouse->*call)();
    EXPECT_EQ(next(10), click(1, 210, 160) + click(2, 210, 160) + click(3, 210, 160) + click(4, 210, 160)
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
    EXPECT_THAT(next(2), ElementsAre(B{true, 1, 200, 150}, B{false, 1, 204, 152}));
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
    EXPECT_THAT(next(1), ElementsAre(B{true, 1, 300, 300}));
    unsigned int mask = 0;
    EXPECT_EQ(desk->pointerAt(300, 307, &mask), Pos(300, 307)) << "the path is walked again";
    EXPECT_TRUE(mask & Button1Mask);

    move(350, 320);
    EXPECT_EQ(desk->pointerAt(350, 320, &mask), Pos(350, 320));
    EXPECT_TRUE(mask & Button1Mask) << "the button stays down while dragging";
    up(360, 330);
    EXPECT_THAT(next(1), ElementsAre(B{false, 1, 360, 330}));
    EXPECT_THAT(buttonsSoFar(), IsEmpty()) << "one press, one release";
}

TEST_F(MouseOnDesktop, AStillPressBecomesARightClickAtTheMovedPositionAndNothingFollows)
{
    GS::instance()->rightClickTime = 100;
    make();
    MessageLog log;
    auto onImageThread = [](auto steps) { std::thread(steps).join(); };

    onImageThread([&] { down(400, 300), move(403, 300); });
    EXPECT_EQ(next(2, true), click(3, 403, 300));
    EXPECT_EQ(log.count("l  right click!"), 1);

    onImageThread([&] { move(450, 320); });
    unsigned int mask = 0;
    EXPECT_EQ(desk->pointerAt(450, 320, &mask), Pos(450, 320)) << "the pointer still follows";
    EXPECT_EQ(mask & (Button1Mask | Button3Mask), 0u);
    onImageThread([&] { up(450, 320); });
    EXPECT_THAT(buttonsSoFar(), IsEmpty()) << "the lift sends nothing";
    EXPECT_FALSE(mc->isRightDown);

    onImageThread([&] { tap(500, 300); });
    EXPECT_EQ(next(2, true), click(1, 500, 300));
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
    EXPECT_EQ(next(4), click(1, 200, 150) + click(1, 210, 160));

    tap(226, 175);
    EXPECT_EQ(log.count(line), 1) << "22 pixels from the last down is too far";

    GS::instance()->doubleClickTime = 30;
    mc->onResolutionChanged(0, 0);
    QTest::qWait(100);
    tap(226, 175);
    EXPECT_EQ(log.count(line), 1) << "too late";
    EXPECT_EQ(buttonsSoFar().size(), 4u) << "both clicks are sent all the same";
}
