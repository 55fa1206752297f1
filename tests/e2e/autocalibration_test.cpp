// The automatic calibration end to end: velora on the emulated sensor, whose projector shows
// the private X server's screen, asked by velora-ctl. Each scene of the table is one run of
// the service: the answer, then for a run that calibrates the file's points against the
// scene's own screen mapping, and a stroke afterwards on the desktop; a failed or cancelled
// run must leave the former calibration as it was.
#include "scene.h"
#include "screenprojection.h"
#include "velorarun.h"

namespace {

struct AcScene {
    const char* name;
    const char* scene;
    const char* answer;  // velora-ctl's line
    int exitCode;        // velora-ctl's exit status
    bool calibrates;     // the file must hold the scene's grid afterwards
    bool former;         // the run starts calibrated and must keep that calibration
    bool tableTop = false;  // ac.conf with the projector above a table
    int escapeAfterMs = 0;  // Esc typed this long after asking
    int delayMs = 0;        // the projector's latency the procedure must measure, within 100 ms
    const char* formerScene = nullptr;  // whose calibration the run starts with, when not its own
    bool normalContrast = false;        // a picture bright enough for the ordinary thresholds
};

// The stroke comes once the calibration is surely done (the answers come 10 to 16 s into the
// stream on 2 cores); a run that strokes checks that it was.
constexpr double strokeStart = 20.0;
constexpr const char* stroke = "stroke stylus 20 2.0 path 200,200 1100,620\n";

const AcScene scenes[] = {
    {"plain", "screen 1280 800\nlens none\nnoise 2\nexposure 30\npicture 90\nprojector display latency 0.05\n",
     "calibration done", 0, true, false},
    {"keystonedthroughlens",
     "screen 1280 800\nlens factory\ncorners 96 70 668 32 694 452 70 418\nnoise 2\nexposure 30\npicture 90\n"
     "projector display latency 0.05\n",
     "calibration done", 0, true, false},
    // The only picture bright enough for the ordinary thresholds: the others, dim ambient
    // light included, take the low-contrast ones on this sensor.
    {"upsidedown",
     "screen 1280 800\nlens none\ncorners 700 440 52 440 60 40 692 40\nnoise 2\nexposure 30\npicture 250\n"
     "projector display latency 0.05\n",
     "calibration done", 0, true, false, false, 0, 0, nullptr, true},
    {"tabletop",
     "screen 1280 800\nlens none\ncorners 170 40 582 40 700 440 52 440\nnoise 2\nexposure 30\npicture 90\n"
     "projector display latency 0.05\n",
     "calibration done", 0, true, false, true},
    {"brightambient",
     "screen 1280 800\nlens none\nbackground 20\nnoise 2\nexposure 30\npicture 25\nprojector display latency 0.05\n",
     "calibration done", 0, true, false},
    {"latency250ms",
     "screen 1280 800\nlens none\nnoise 2\nexposure 30\npicture 90\nprojector display latency 0.25\n",
     "calibration done", 0, true, false, false, 0, 250},
    // Somebody presses the spinner of the screen shown while the new calibration is checked,
    // again and again for as long as it turns.
    {"pressincheck",
     "screen 1280 800\nlens none\nnoise 2\nexposure 30\npicture 90\nprojector display latency 0.05\n"
     "user stylus 3 target #00acea tolerance 40 reaction 0.3 hold 0.3 size 9 brightness 380\n",
     "light disturbance", 4, true, false},
    {"escapeinrows",
     "screen 1280 800\nlens none\nnoise 2\nexposure 30\npicture 90\nprojector display latency 0.05\n",
     "cancelled", 4, false, true, false, 7000},
    // The top of the screen lies above the sensor: its first rows are never seen.
    {"screenoffsensor",
     "screen 1280 800\nlens none\ncorners 60 -90 692 -90 700 440 52 440\nnoise 2\nexposure 30\npicture 90\n"
     "projector display latency 0.05\n",
     "calibration failed", 4, false, true, false, 0, 0, "screen 1280 800\nlens none\n"},
};

class AutoCalibrationRun : public ::testing::TestWithParam<AcScene>, protected VeloraRun {};

TEST_P(AutoCalibrationRun, AnswersAndLeavesTheRightCalibrationInForce)
{
    const AcScene& c = GetParam();
    const QString file = userDir() + "stylus-velora.ini";
    QFile::remove(file);
    if (c.formerScene) {
        QDir().mkpath(userDir());
        const EmulatorFiles former(c.formerScene);
        ASSERT_EQ(sceneCalibration(former.path("scene.txt"), file), 0);
    }
    start(std::string(c.scene) + stroke, c.former && !c.formerScene ? file : QString());
    const QByteArray formerText = fileBytes(file);
    if (c.tableTop) {
        // Read by the procedure when it starts, so the service's copy may change while it runs.
        QString conf = QString::fromStdString(run->fileText("config/ac.conf"));
        conf.replace("projector above a table, 1 for yes: 0", "projector above a table, 1 for yes: 1");
        ASSERT_TRUE(std::ofstream(run->path("config/ac.conf")) << conf.toStdString());
    }
    if (!c.former) {
        ASSERT_EQ(ctl({"stylus"}).second, "not calibrated");
    }

    QProcess menu;
    menu.start(toolPath("velora-ctl"), {"calibrate", "auto"});
    ASSERT_TRUE(menu.waitForStarted());
    if (c.escapeAfterMs > 0) {
        ASSERT_FALSE(menu.waitForFinished(c.escapeAfterMs)) << "the rows were over before Esc";
        key("Escape");
    }
    ASSERT_TRUE(menu.waitForFinished(180000));
    EXPECT_EQ(QString::fromLocal8Bit(menu.readAllStandardOutput()).trimmed(), c.answer) << qPrintable(log());
    EXPECT_EQ(menu.exitCode(), c.exitCode);
    const double answeredAt = streamTime();

    const std::string all = run->fileText("velora.log");
    if (c.delayMs > 0) {
        const std::string tag = "interframeDelayMilliSeconds =";
        const size_t at = all.rfind(tag);
        ASSERT_NE(at, std::string::npos) << "the measured delay";
        EXPECT_NEAR(std::atoi(all.c_str() + at + tag.size()), c.delayMs, 100) << "the measured delay";
    }

    if (c.former) {
        EXPECT_EQ(fileBytes(file), formerText) << "the former calibration's file";
        EXPECT_EQ(ctl({"stylus"}).second, "ready") << "the former calibration in force";
    }
    if (c.calibrates) {
        EXPECT_NE(all.find(c.normalContrast ? "Picture contrast: normal" : "Picture contrast: low"), std::string::npos);
        std::unique_ptr<Calibration> cal(Calibration::read(file.toLocal8Bit().constData()));
        ASSERT_TRUE(cal) << "the file of the new calibration";
        ASSERT_EQ(cal->srcPoints.size(), size_t(cal->cols) * cal->rows);
        ASSERT_GE(cal->cols, 2);
        Scene scene;
        std::string error;
        ASSERT_TRUE(Scene::load(run->path("scene.txt"), scene, error)) << error;
        const ScreenProjection truth(scene.screenWidth, scene.screenHeight, scene.corners, scene.lens);
        const std::vector<EVector> dst = cal->calcDstPoints(scene.screenWidth, scene.screenHeight);
        ASSERT_EQ(dst.size(), cal->srcPoints.size());
        for (size_t i = 0; i < dst.size(); ++i) {
            double sx, sy;
            truth.toSensor(dst[i].x, dst[i].y, sx, sy);
            EXPECT_LE(std::hypot(cal->srcPoints[i].x - sx, cal->srcPoints[i].y - sy), 1.0) << "dot " << i << " at " << dst[i].x << "," << dst[i].y << " found at "
                                << cal->srcPoints[i].x << "," << cal->srcPoints[i].y << ", truth " << sx << "," << sy;
        }
    }
    // Light on the screen keeps the pointer off until the next calibration; another scene's
    // calibration puts strokes elsewhere.
    if (c.exitCode != 0 && (!c.former || c.formerScene))
        return;

    ASSERT_LT(answeredAt, strokeStart) << "the calibration took too long for the stroke";
    expectPointerFollowsStroke(strokeStart + 3);
}

INSTANTIATE_TEST_SUITE_P(Scenes, AutoCalibrationRun, ::testing::ValuesIn(scenes),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
