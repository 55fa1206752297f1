// The calibration screens on a private X server: the window as the desktop sees it, keys and
// buttons sent through XTest, close requests, the loading hand-shake, and pictures of each
// view taken from the server and checked where it matters.
#include "autocalibrationui.h"
#include "blobcontainer.h"
#include "laseralignui.h"
#include "lumerailcalibrationui.h"
#include "manualcalibrationui.h"
#include "offsetcorrectionui.h"
#include "qmlapplicationviewer.h"

#include <gtest/gtest.h>

#include <QLineF>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "xscreen.h"
extern "C" {
#include <xdo.h>
}

namespace {

struct Found {
    int count = 0;
    QPointF centroid;
};

// Pixels in rect (the whole picture when empty) whose colour passes the test.
Found find(const QImage& img, const std::function<bool(QRgb)>& match, QRect rect = {})
{
    rect = rect.isNull() ? img.rect() : rect.intersected(img.rect());
    Found f;
    double sx = 0, sy = 0;
    for (int y = rect.top(); y <= rect.bottom(); ++y)
        for (int x = rect.left(); x <= rect.right(); ++x)
            if (match(img.pixel(x, y))) {
                ++f.count;
                sx += x;
                sy += y;
            }
    if (f.count)
        f.centroid = {sx / f.count, sy / f.count};
    return f;
}

const auto pureRed = [](QRgb c) { return qRed(c) >= 230 && qGreen(c) <= 40 && qBlue(c) <= 40; };
const auto bannerRed = [](QRgb c) { return qRed(c) >= 150 && qGreen(c) <= 70 && qBlue(c) <= 70; };
// The check mark's own green, reached once it has faded in.
const auto green = [](QRgb c) { return qGreen(c) >= 130 && qRed(c) <= 30 && qBlue(c) <= 40; };
const auto blue = [](QRgb c) { return qBlue(c) >= 180 && qGreen(c) >= 130 && qRed(c) <= 80; };
const auto dark = [](QRgb c) { return qRed(c) < 100 && qGreen(c) < 100 && qBlue(c) < 100; };

class ScreenTest : public ::testing::Test {
protected:
    static inline Display* dpy = nullptr;
    static inline xdo_t* xdo = nullptr;

    static void SetUpTestSuite() { dpy = XOpenDisplay(nullptr), xdo = xdo_new(nullptr); }
    static void TearDownTestSuite() { xdo_free(xdo), XCloseDisplay(dpy); }

    void SetUp() override { ASSERT_TRUE(dpy && xdo) << "no X server"; }

    // Takes pictures until one passes the check (an animation has settled) or time is up;
    // the last is saved for people to look at and left in *last; whether it passed.
    static bool settle(const char* name, const std::function<bool(const QImage&)>& check, QImage* last = nullptr)
    {
        QImage img;
        const bool passed = waitFor([&] {
            img = grab(dpy);
            return check(img);
        });
        img.save(QString(VELORA_SCREENSHOT_DIR) + "/" + name + ".png");
        if (last)
            *last = img;
        return passed;
    }

    static void showAndFocus(Ui& ui)
    {
        ui.show(true);
        ASSERT_TRUE(waitFor([&] { return ui.viewer->isExposed(); }));
        ui.bringToFront();
        ASSERT_TRUE(waitFor([&] { return ui.viewer->isActive(); }));
    }

    static bool viewable(Window w)
    {
        XWindowAttributes a;
        return XGetWindowAttributes(dpy, w, &a) && a.map_state == IsViewable;
    }
};

TEST_F(ScreenTest, OpensFullScreenFramelessOnTopAndTellsItsStateInTheTitle)
{
    ManualCalibrationUi ui;
    showAndFocus(ui);
    const Window w = ui.viewer->winId();

    XWindowAttributes a;
    ASSERT_TRUE(XGetWindowAttributes(dpy, w, &a));
    EXPECT_EQ(QRect(a.x, a.y, a.width, a.height), QRect(0, 0, 1280, 800));
    EXPECT_EQ(ui.root->property("width").toInt(), 1280);
    const auto state = windowProperty<unsigned long>(dpy, w, "_NET_WM_STATE", XA_ATOM);
    EXPECT_NE(std::find(state.begin(), state.end(), XInternAtom(dpy, "_NET_WM_STATE_ABOVE", False)), state.end());
    // Motif hints: the decorations flag set, and no decorations.
    const auto motif = windowProperty<unsigned long>(dpy, w, "_MOTIF_WM_HINTS", AnyPropertyType);
    ASSERT_GE(motif.size(), 3u);
    EXPECT_TRUE(motif[0] & 2);
    EXPECT_EQ(motif[2], 0u);
    EXPECT_EQ(windowTitle(dpy, w), "velora-main -visible");

    ui.show(false);
    ASSERT_TRUE(waitFor([&] { return !viewable(w); }));
    EXPECT_FALSE(ui.shown);
    EXPECT_EQ(windowTitle(dpy, w), "velora-main -hidden");
    ui.show(true);
    ASSERT_TRUE(waitFor([&] { return viewable(w); }));
    EXPECT_EQ(windowTitle(dpy, w), "velora-main -hidden");
}

struct Input {
    const char* name;
    bool dotView;
    const char* keys;  // an xdo key sequence, or null for a mouse button
    int button;
    std::vector<int> ids;
};

class InputTest : public ScreenTest, public ::testing::WithParamInterface<Input> {};

TEST_P(InputTest, GivesItsEventIds)
{
    const Input& in = GetParam();
    ManualCalibrationUi dots;
    OffsetCorrectionUi offset;
    Ui& ui = in.dotView ? static_cast<Ui&>(dots) : static_cast<Ui&>(offset);
    showAndFocus(ui);
    if (in.dotView)
        dots.show(true, false);
    else
        offset.show(true);
    std::vector<int> ids;
    std::vector<QPoint> clicks;
    QObject::connect(&ui, &Ui::uiEvent, [&](int id) { ids.push_back(id); });
    QObject::connect(&ui, &Ui::mouseClicked, [&](int x, int y) { clicks.emplace_back(x, y); });
    QCoreApplication::processEvents();

    if (in.keys) {
        xdo_send_keysequence_window(xdo, CURRENTWINDOW, in.keys, 12000);
    } else {
        xdo_move_mouse(xdo, 640, 300, 0);
        xdo_click_window(xdo, CURRENTWINDOW, in.button);
    }
    // Esc after each input marks its end, since some inputs give nothing: every row ends in its 1.
    xdo_send_keysequence_window(xdo, CURRENTWINDOW, "Escape", 12000);
    ASSERT_TRUE(waitFor([&] { return ids.size() >= in.ids.size(); }));
    QCoreApplication::processEvents();

    EXPECT_EQ(ids, in.ids);
    EXPECT_EQ(clicks, in.keys ? std::vector<QPoint>{} : std::vector<QPoint>{QPoint(640, 300)});
}

INSTANTIATE_TEST_SUITE_P(
    KeysAndButtons, InputTest,
    ::testing::Values(Input{"Esc", true, "Escape", 0, {1, 1}}, Input{"ReturnInDotView", true, "Return", 0, {3, 2, 1}},
                      Input{"ReturnElsewhere", false, "Return", 0, {3, 1}}, Input{"BInDotView", true, "b", 0, {2, 1}},
                      Input{"BElsewhere", false, "b", 0, {1}}, Input{"Up", false, "Up", 0, {4, 1}},
                      Input{"Down", false, "Down", 0, {6, 1}}, Input{"P", true, "p", 0, {99, 1}},
                      Input{"CtrlD", false, "ctrl+d", 0, {8, 1}}, Input{"LeftButton", true, nullptr, 1, {3, 1}},
                      Input{"RightButton", true, nullptr, 3, {1, 1}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ScreenTest, CloseRequestKeepsTheWindowAndActsAsEsc)
{
    ManualCalibrationUi ui;
    showAndFocus(ui);
    std::vector<int> ids;
    QObject::connect(&ui, &Ui::uiEvent, [&](int id) { ids.push_back(id); });
    const Window w = ui.viewer->winId();

    // As a window manager asks.
    XEvent e{};
    e.xclient.type = ClientMessage;
    e.xclient.window = w;
    e.xclient.message_type = XInternAtom(dpy, "WM_PROTOCOLS", False);
    e.xclient.format = 32;
    e.xclient.data.l[0] = long(XInternAtom(dpy, "WM_DELETE_WINDOW", False));
    e.xclient.data.l[1] = CurrentTime;
    XSendEvent(dpy, w, False, NoEventMask, &e);
    XFlush(dpy);
    ASSERT_TRUE(waitFor([&] { return ids.size() == 1; }));

    // As the program itself asks.
    ui.viewer->close();
    ASSERT_TRUE(waitFor([&] { return ids.size() == 2; }));

    EXPECT_EQ(ids, (std::vector<int>{1, 1}));
    EXPECT_TRUE(ui.viewer->isVisible());
    EXPECT_TRUE(viewable(w));
}

TEST_F(ScreenTest, ShowLoadingFromAWorkerReturnsOnceTheDocumentAnswered)
{
    ManualCalibrationUi ui;
    ui.show(true, false);
    QObject* mc = ui.root->findChild<QObject*>("manualCalibration");
    ASSERT_TRUE(waitFor([&] { return mc->property("visible").toBool(); }));

    for (bool on : {true, false}) {
        std::atomic<bool> returned{false};
        std::thread worker([&] {
            ui.showLoading(on);
            returned = true;
        });
        const bool ended = waitFor([&] { return returned.load(); }, 10000);
        worker.join();
        ASSERT_TRUE(ended);
        EXPECT_TRUE(ui.uiDone) << "on " << on;
        EXPECT_EQ(ui.root->property("isLoading").toBool(), on);
        // The manual view gives way to the indicator, and comes back after it.
        EXPECT_TRUE(waitFor([&] { return mc->property("visible").toBool() == !on; })) << "on " << on;
    }
}

TEST_F(ScreenTest, ShowLoadingOnADocumentWithoutItGoesOnAfterTheWait)
{
    Ui ui("en", "qrc:/qml/Standby.qml", nullptr, true);
    ASSERT_TRUE(ui.root);
    EXPECT_EQ(ui.blobContainer, nullptr);
    ui.showLoading(true);
    EXPECT_FALSE(ui.uiDone);
    EXPECT_TRUE(ui.viewer->isVisible());
}

TEST_F(ScreenTest, CrosshairSitsWhereItWasMovedWithTheHintOnTheFirstPointOnly)
{
    ManualCalibrationUi ui;
    ui.setTouch(true);
    ui.show(true, false);
    ui.moveCrosshairTo(300, 200, 0);
    // With the hint to its right.
    EXPECT_TRUE(settle("crosshair_first_point_finger", [&](const QImage& i) {
        return QLineF(find(i, pureRed).centroid, QPointF(300, 200)).length() <= 2
            && find(i, dark, QRect(330, 180, 380, 40)).count > 30;
    }));

    ui.setTouch(false);
    ui.moveCrosshairTo(900, 650, 1);
    EXPECT_TRUE(settle("crosshair_stylus", [&](const QImage& i) {
        return QLineF(find(i, pureRed).centroid, QPointF(900, 650)).length() <= 2
            && find(i, dark, QRect(930, 630, 340, 40)).count == 0;
    }));
    EXPECT_EQ(ui.root->property("calibrationText").toString(), ui.root->property("calibrationTextStylus").toString());
}

TEST_F(ScreenTest, PressFillsTheBarThenACheckMarkTakesThePlaceOfTheDot)
{
    ManualCalibrationUi ui;
    ui.setTouch(true);
    ui.show(true, false);
    ui.moveCrosshairTo(640, 200, 2);
    const QPointF dot(640, 200);
    settle("crosshair_finger", [&](const QImage& i) { return QLineF(find(i, pureRed).centroid, dot).length() <= 2; });

    ui.startTimer();
    // The bar above the dot is full once its 500 ms have passed: about 31 by 5 pixels at this size.
    EXPECT_TRUE(settle("pressing", [](const QImage& p) { return find(p, blue, {600, 150, 80, 40}).count >= 120; }));

    ui.timedout();
    QImage img;
    EXPECT_TRUE(settle("check_mark", [&](const QImage& i) {
        return find(i, green).count > 100 && find(i, pureRed).count == 0 && find(i, blue).count == 0;
    }, &img));
    EXPECT_LE(QLineF(find(img, green).centroid, dot).length(), 10.0);
}

TEST_F(ScreenTest, FailedAutomaticCalibrationShowsItsTextInRed)
{
    ManualCalibrationUi ui;
    ui.setTouch(true);
    ui.setAcFailed(true);
    ui.show(true, false);
    ui.moveCrosshairTo(80, 80, 1);
    EXPECT_TRUE(settle("ac_failed", [&](const QImage& i) {
        return find(i, bannerRed, QRect(200, 150, 880, 500)).count > 300
            && QLineF(find(i, pureRed).centroid, QPointF(80, 80)).length() <= 2;
    }));
}

TEST_F(ScreenTest, LoadingBarViewAndPictureViews)
{
    ManualCalibrationUi mc;
    mc.show(true, false);
    mc.showLoading(true);
    QImage img;
    const auto loading = [&](const QImage& i) { return find(i, blue, QRect(540, 300, 200, 200)).count > 200; };
    EXPECT_TRUE(settle("loading", loading, &img));
    EXPECT_EQ(find(img, pureRed).count, 0);
    mc.show(false);

    LumerailCalibrationUi lrc;
    lrc.show(true, false);
    lrc.setLumerailCrossHairNum(3);
    lrc.setLumerailCrossHairNum(0);
    ASSERT_TRUE(waitFor([&] { return lrc.root->property("lrcCrosshairNoText").toString() == "3"; }));
    EXPECT_TRUE(settle("lumerail", [&](const QImage& i) { return find(i, dark, QRect(620, 380, 40, 40)).count > 20; }));
    lrc.show(false);

    // A grey camera picture through the image provider fills the screen.
    AutoCalibrationUi ac;
    ac.show(true, false);
    std::vector<unsigned char> frame(160 * 100, 128);
    ac.showImage(frame.data(), 160, 100, 0);
    ac.showImage(frame.data(), 160, 100, 0);
    EXPECT_TRUE(settle("picture", [&](const QImage& i) { return i.pixel(640, 400) == qRgb(128, 128, 128); }));
    EXPECT_EQ(ac.root->property("imageCount").toInt(), 2);
}

// What the laser alignment's operations leave in the dot records and what the picture shows.
TEST_F(ScreenTest, LaserAlignmentDotsActiveAreBlueDoneAreGreenAndTheOthersUnseen)
{
    LaserAlignUi ui;
    ASSERT_TRUE(ui.blobContainer);
    ui.show(true);
    ASSERT_TRUE(waitFor([&] { return ui.viewer->isExposed(); }));
    const std::vector<QPoint> at{{200, 200}, {600, 300}, {1000, 500}};
    ui.showLaserAlignDots({EVector(200.7, 200.2), EVector(600, 300), EVector(1000, 500)});
    ui.showActiveLaserAlignDots({0, 1, 7});
    ui.setLaserAlignAccuracyThreshold(99);
    ui.setLaserAlignAccuracy(100, 1);
    ui.showHandOnDot(2, true);
    ui.showHandOnDot(-1, false);
    // Outside the list: ignored.
    ui.setDotVisible(9, false);
    ui.setLaserAlignAccuracy(50, 3);
    ui.showAlignState(static_cast<AlignState>(7));
    ui.showAlignState(AlignState::AutoCorrection);
    ASSERT_TRUE(waitFor([&] { return ui.blobContainer->length() == 3 && ui.blobContainer->isBusy(1); }));

    const BlobContainer& c = *ui.blobContainer;
    EXPECT_EQ(QPoint(c.getX(0), c.getY(0)), QPoint(200, 200));
    EXPECT_TRUE(c.isActive(0) && c.isActive(1) && !c.isActive(2));
    EXPECT_EQ(c.getAccuracy(1), 100);
    EXPECT_EQ(c.getInfoType(0), -1);
    EXPECT_FALSE(c.isHandIcon(0) || c.isHandIcon(1) || c.isHandIcon(2)) << "-1 clears every hand";

    // Beside the centre, where a done dot has its check mark.
    const int beside = int(20 * ui.root->property("rRatio").toDouble());
    QImage img;
    EXPECT_TRUE(settle("laseralign_dots", [&](const QImage& i) {
        return activeDotBlue(i.pixel(at[0].x() + beside, at[0].y())) && doneDotGreen(i.pixel(at[1].x() + beside, at[1].y()));
    }, &img)) << "dot 0 blue, dot 1 green";
    // White: every channel 240 or more.
    EXPECT_EQ(img.pixel(at[2].x() + beside, at[2].y()) | 0xff0f0f0f, 0xffffffffu) << "inactive: not drawn";
}

} // namespace
