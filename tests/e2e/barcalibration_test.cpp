// The bar calibration end to end in one process: the facade on the emulated sensor, asked as the
// menu asks (id 21), while a stylus presses the bar's four points beside the screen, again and
// again. The points go into the calibration in force and its file, and afterwards the spots
// beside the screen reach the listeners' outside calls.
#include "calibration.h"
#include "endtoendrun.h"
#include "ilumerailcalibration.h"
#include "ilumerailcalibrationui.h"
#include "multipointercontroller.h"
#include "procedurefactory.h"
#include "streamclock.h"

#include <atomic>

namespace {

// A small screen in the middle of the sensor leaves room for the bar around it; the bar keeps
// close to the screen, where the lens still shows it. The four points are pressed one after the
// other every 6 s, after three quiet seconds: the calibration is asked for at the start of those,
// so that no press is lit while it learns the background (a spot learnt into it is not seen).
const char* const scene = R"(
screen 1280 800
corners 150 90 602 90 610 390 142 390
lens factory
stamp on
loop 6.0
tap stylus 3.0 0.45 size 9 brightness 900 at -80,-60
tap stylus 3.8 0.45 size 9 brightness 900 at 1360,-60
tap stylus 4.6 0.45 size 9 brightness 900 at 1360,860
tap stylus 5.4 0.3 size 9 brightness 900 at -80,860
)";
constexpr double loopSeconds = 6.0;
const EVector bar[4] = {{-80, -60}, {1360, -60}, {1360, 860}, {-80, 860}};

// No window here: the screen's calls go nowhere.
class QuietBarScreen : public ILumerailCalibrationUi {
public:
    void show(bool, bool) override {}
    void showLoading(bool) override {}
    void setLumerailCrossHairNum(int) override {}
    void sendEventsTo(QObject*, const char*) override {}
    void startTimer() override {}
    void stopTimer() override {}
    void timedout() override {}
};

class QuietFactory : public ProcedureFactory {
public:
    ILumerailCalibrationUi* makeLumerailCalibrationUi(const char*) override { return new QuietBarScreen(); }
};

class OutsideCalls : public IBlobListener {
public:
    void newBlob(Blob*, std::vector<Blob*>, unsigned char*) override {}
    void newBlobList(std::vector<Blob*>) override {}
    void newOutsideBlob(Blob* b, std::vector<Blob*>, unsigned char*) override
    {
        std::lock_guard hold(lock);
        seen.emplace_back(b->fx, b->fy);
    }
    std::vector<EVector> positions()
    {
        std::lock_guard hold(lock);
        return seen;
    }

private:
    std::mutex lock;
    std::vector<EVector> seen;
};

// Which bar point a screen position is, or -1.
int barPointAt(double x, double y, double tolerance)
{
    for (int i = 0; i < 4; ++i)
        if (std::hypot(x - bar[i].x, y - bar[i].y) < tolerance)
            return i;
    return -1;
}

TEST(BarCalibration, TheFourPointsBesideTheScreenAreStoredAndThenReported)
{
    EndToEndRun run;
    QuietFactory factory;
    run.procedures = &factory;
    OutsideCalls outside;
    bool asked = false, listening = false;
    std::vector<EVector> inForce;
    std::atomic<int> status{99};
    run.idle = [&] {
        PipeFacade* f = run.facade;
        if (!asked && f->getCalibration() && f->pointerController->enabled
            && std::fmod(streamSeconds(run.files->path("truth.txt")), loopSeconds) < 0.5) {
            asked = true;
            f->onIpcMessageReceived(21);
            QObject::connect(f->lumerailCalibration, &Procedure::finished, [&](int s) { status = s; });
        }
        if (asked && !listening && !f->lumerailCalibration) {
            // Finished and deleted: the facade is back in stylus mode with the bar in force.
            listening = true;
            inForce = f->getCalibration()->refPoints;
            f->addBlobListener(&outside);
        }
        if (listening && outside.positions().size() > 60)
            run.enough = true;
    };
    run.run(scene, 1, 1, 40.0, 1280, 800);
    if (PipeFacade* f = run.facade)
        f->removeBlobListener(&outside);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(asked) << "the calibration never came into force";
    ASSERT_TRUE(listening) << "the bar calibration did not end";
    EXPECT_EQ(status, 1);

    // Each point once, in the order pressed, the first being whichever came first.
    ASSERT_EQ(inForce.size(), 4u);
    std::unique_ptr<Calibration> saved(Calibration::read(run.files->path("calibration.ini").c_str()));
    ASSERT_TRUE(saved);
    ASSERT_EQ(saved->refPoints.size(), 4u) << "the file carries them";
    const int first = barPointAt(inForce[0].x * 1280, inForce[0].y * 800, 12);
    for (size_t i = 0; i < 4; ++i) {
        const int at = barPointAt(inForce[i].x * 1280, inForce[i].y * 800, 12);
        ASSERT_NE(at, -1) << "point " << i << " at (" << inForce[i].x << ", " << inForce[i].y << ")";
        EXPECT_EQ(at, (first + int(i)) % 4) << "point " << i;
        EXPECT_NEAR(saved->refPoints[i].x, inForce[i].x, 1e-6) << i;
        EXPECT_NEAR(saved->refPoints[i].y, inForce[i].y, 1e-6) << i;
    }

    const std::vector<EVector> reported = outside.positions();
    ASSERT_FALSE(reported.empty()) << "no outside call after the calibration";
    int stray = 0;
    for (const EVector& p : reported)
        stray += barPointAt(p.x, p.y, 12) == -1;
    EXPECT_EQ(stray, 0) << "outside spots away from the bar, of " << reported.size();
}

} // namespace
