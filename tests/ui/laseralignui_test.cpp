// The laser alignment's screen on a private X server: what its operations leave in the dot
// records and what the picture shows of them.
#include "blobcontainer.h"
#include "laseralignui.h"
#include "qmlapplicationviewer.h"

#include <gtest/gtest.h>

#include <memory>

#include "xscreen.h"

namespace {

TEST(LaserAlignScreen, ActiveDotsAreBlueDoneDotsGreenAndTheOthersUnseen)
{
    const std::unique_ptr<Display, int (*)(Display*)> dpy(XOpenDisplay(nullptr), XCloseDisplay);
    ASSERT_TRUE(dpy) << "no X server";
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
    const double r = ui.root->property("rRatio").toDouble();
    QImage img;
    const bool drawn = waitFor([&] {
        img = grab(dpy.get());
        return activeDotBlue(img.pixel(at[0].x() + int(20 * r), at[0].y()))
            && doneDotGreen(img.pixel(at[1].x() + int(20 * r), at[1].y()));
    });
    img.save(VELORA_SCREENSHOT_DIR "/laseralign_dots.png");
    EXPECT_TRUE(drawn) << "dot 0 blue, dot 1 green";
    // White: every channel 240 or more.
    EXPECT_EQ(img.pixel(at[2].x() + int(20 * r), at[2].y()) | 0xff0f0f0f, 0xffffffffu) << "inactive: not drawn";
}

} // namespace
