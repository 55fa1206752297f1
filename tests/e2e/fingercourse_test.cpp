// A manual calibration asked for in finger mode, end to end: velora on the emulated sensor,
// whose projector shows the private X server's screen, and emulated people who press the red
// centre of each crosshair. One velora run per course: the automatic calibration and then the
// finger dots; or, when the automatic one sees nothing, the stylus dots in its place and then
// the finger dots. Each must answer once, leave the files of the procedures that ran, and end
// in finger mode with the laser curtain on.
#include "globalsettings.h"
#include "velorarun.h"

namespace {

// The stylus presses only the stylus dots: the finger dots lie elsewhere, and with the laser
// off for the stylus dots the finger's presses there are not seen. The banner of a failed
// automatic calibration is a darker red than the crosshair's centre: the tolerance keeps it out.
constexpr const char* fingerUser =
    "user finger 0 target #ff0000 tolerance 30 reaction 0.3 accuracy 1 hold 0.8\n";
constexpr const char* stylusUser =
    "user stylus 0 target #ff0000 tolerance 30 reaction 0.3 accuracy 1 hold 0.45 size 8 brightness 900 count 25\n";

struct Course {
    const char* name;
    const char* scene;
    bool automaticHolds;  // the stylus file is the automatic calibration's; else the stylus dots'
    int manualRuns;
};

const Course courses[] = {
    {"AutomaticThenFingerDots",
     "screen 1280 800\nlens none\nnoise 2\nexposure 30\npicture 90\nprojector display latency 0.05\n", true, 1},
    // The camera sees a plain lit screen, none of the automatic calibration's dots.
    {"StylusDotsInPlaceOfAFailedAutomatic", "screen 1280 800\nlens none\nnoise 2\nexposure 30\npicture 90\n", false,
     2},
};

class FingerCourse : public ::testing::TestWithParam<Course>, protected VeloraRun {
protected:
    // The last value the service wrote to an imager register.
    int lastRegister(int reg) const
    {
        int value = -1;
        for (const EmulatedRun::Write& w : run->pairedWrites(true))
            if (w.kind == "reg" && w.a == reg)
                value = w.b;
        return value;
    }
};

TEST_P(FingerCourse, EndsWithTheFilesOfItsProceduresInFingerModeWithTheLaserOn)
{
    const Course& c = GetParam();
    // The two runs share one home: each starts uncalibrated.
    QDir(userDir()).removeRecursively();
    start(std::string(c.scene) + fingerUser + (c.automaticHolds ? "" : stylusUser));
    ASSERT_EQ(ctl({"finger"}).second, "not calibrated");

    EXPECT_EQ(ctl({"calibrate", "manual"}), std::make_pair(0, QString("calibration done"))) << qPrintable(log());

    const QString all = QString::fromStdString(run->fileText("velora.log"));
    EXPECT_EQ(all.count("MC triggered in touch mode"), 1);
    EXPECT_EQ(all.count("Start MC"), c.manualRuns) << "manual calibrations run";

    GS* gs = GS::instance();
    if (c.automaticHolds) {
        std::unique_ptr<Calibration> ac(
            Calibration::read((userDir() + "stylus-velora.ini").toLocal8Bit().constData()));
        ASSERT_TRUE(ac) << "the automatic calibration's file";
        EXPECT_EQ(ac->cols, 6) << "the grid of ac.conf";
        EXPECT_EQ(ac->srcPoints.size(), size_t(ac->cols) * ac->rows);
    } else {
        expectPressedGrid(userDir() + "stylus-velora.ini", "stylus", 3, gs->mcMarginX, gs->mcMarginY);
    }
    expectPressedGrid(userDir() + "finger-velora.ini", "finger", 3, gs->mcTouchMarginX, gs->mcTouchMarginY);

    EXPECT_EQ(lastRegister(27), 0) << "the laser curtain is on";
    EXPECT_EQ(lastRegister(11), gs->fingerExposure) << "the finger exposure is set";
    EXPECT_EQ(ctl({"status"}).second, "ready");
}

INSTANTIATE_TEST_SUITE_P(Courses, FingerCourse, ::testing::ValuesIn(courses),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
