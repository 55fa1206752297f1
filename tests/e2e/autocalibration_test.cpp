// The automatic calibration end to end: velora on the emulated sensor, whose projector shows
// the private X server's screen, asked by velora-ctl. Each scene of the table is one run of
// the service: the answer, then for a run that calibrates the file's points against the
// scene's own screen mapping, and a stroke afterwards on the desktop.
#include "calibration.h"
#include "scene.h"
#include "screenprojection.h"
#include "velorarun.h"

namespace {

struct AcScene {
    const char* name;
    const char* scene;
    const char* answer;  // velora-ctl's line
    bool calibrates;     // the file must hold the scene's grid, and strokes land
};

// The stroke comes once the calibration is surely done; the run checks that it was.
constexpr double strokeStart = 32.0;
constexpr const char* stroke = "stroke stylus 32 2.0 path 200,200 1100,620\n";

const AcScene scenes[] = {
    {"plain", "screen 1280 800\nlens none\nnoise 2\nexposure 30\npicture 90\nprojector display latency 0.05\n",
     "calibration done", true},
};

class AutoCalibrationRun : public ::testing::TestWithParam<AcScene>, protected VeloraRun {};

TEST_P(AutoCalibrationRun, AnswersAndPutsTheFoundGridInForce)
{
    const AcScene& c = GetParam();
    start(std::string(c.scene) + stroke);
    ASSERT_EQ(ctl({"stylus"}).second, "not calibrated");

    QElapsedTimer asked;
    asked.start();
    const auto [code, text] = ctl({"calibrate", "auto"});
    const qint64 tookMs = asked.elapsed();
    RecordProperty("answer_ms", int(tookMs));
    printf("%s: answer after %lld ms\n", c.name, static_cast<long long>(tookMs));
    EXPECT_EQ(text, c.answer) << qPrintable(log());
    EXPECT_EQ(code, 0);
    if (!c.calibrates)
        return;
    ASSERT_LT(streamTime(), strokeStart) << "the calibration took too long for the stroke";

    std::unique_ptr<Calibration> cal(Calibration::read((userDir() + "stylus-velora.ini").toLocal8Bit().constData()));
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
        EXPECT_LE(std::hypot(cal->srcPoints[i].x - sx, cal->srcPoints[i].y - sy), 1.0)
            << "dot " << i << " at " << dst[i].x << "," << dst[i].y << " found at " << cal->srcPoints[i].x << ","
            << cal->srcPoints[i].y << ", truth " << sx << "," << sy;
    }

    const std::vector<std::pair<int, int>> seen = pointerUntil(strokeStart + 3);
    ASSERT_GT(seen.size(), 20u) << "the stroke moved the pointer";
    int far = 0;
    for (size_t i = 1; i < seen.size(); ++i)
        if (distanceToSegment(seen[i].first, seen[i].second, 200, 200, 1100, 620) > 3)
            ++far;
    EXPECT_EQ(far, 0) << "pointer positions more than 3 pixels off the stroke, of " << seen.size();
    EXPECT_LE(std::hypot(seen.back().first - 1100, seen.back().second - 620), 10.0) << "the stroke's end was reached";
}

INSTANTIATE_TEST_SUITE_P(Scenes, AutoCalibrationRun, ::testing::ValuesIn(scenes),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
