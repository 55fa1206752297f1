#include "fingerscene.h"

#include "boxtrackingengine.h"
#include "globalsettings.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

constexpr int W = FingerScene::Width;
constexpr int H = FingerScene::Height;

// The blobs are the caller's; this frees them once a test has looked at them.
struct Found {
    AllBlobs all;
    Found() = default;
    Found(const Found&) = delete;
    ~Found()
    {
        for (Blob* b : all.blobs.blobs)
            delete b;
    }
    int size() const { return all.blobs.size(); }
    Blob* at(int i) const { return all.blobs.blobs[std::size_t(i)]; }
    // The blob nearest to p, or null.
    Blob* near(const EVector& p, double within) const
    {
        Blob* best = nullptr;
        for (Blob* b : all.blobs.blobs)
            if ((b->center() - p).length() < within && (!best || (b->center() - p).length() < (best->center() - p).length()))
                best = b;
        return best;
    }
};

// Settings that the tests change, put back after each.
class FingerEngine : public ::testing::Test {
protected:
    GS* gs = GS::instance();
    FingerScene scene;
    std::unique_ptr<BoxTrackingEngine> engine;
    std::unique_ptr<Calibration> calibration;

    void SetUp() override
    {
        remember();
        gs->regionalDeltaLimit = 8; // the working value; the default is a place holder
        engine = std::make_unique<BoxTrackingEngine>(W, H, gs->boxFactor, gs->boxParameter);
    }
    void TearDown() override { restore(); }

    // Calibrates as the system does after a calibration: lays the boxes, orders a full
    // refresh, and lets learning and the refresh run over frames of the empty scene.
    void calibrate()
    {
        calibration = scene.calibration();
        engine->setCalibration(calibration.get(), gs->boxParameter);
        engine->triggerBgRefresh(true, false);
        settle();
    }
    void settle()
    {
        for (int i = 0; i < 200 && (engine->learnCount < engine->learnFrames || engine->updating ||
                                    engine->updateCount < engine->updateFrames);
             ++i) {
            Found f;
            std::vector<unsigned char> frame = scene.frame();
            f.all = engine->processImage(frame.data(), false, false);
            EXPECT_EQ(f.size(), 0) << "nothing is reported while the background is learned";
        }
        ASSERT_FALSE(engine->updating);
    }
    void detect(const std::vector<Finger>& fingers, Found& out, bool extended = false)
    {
        std::vector<unsigned char> frame = scene.frame(fingers);
        out.all = engine->processImage(frame.data(), extended, false);
    }

private:
    double blobFilterLeft, blobFilterRight, blobFilterTop, blobFilterBottom;
    int deltaLimit, belowLimit, refreshLimit;
    bool shadowEnabled;
    void remember()
    {
        blobFilterLeft = gs->blobFilterLeft;
        blobFilterRight = gs->blobFilterRight;
        blobFilterTop = gs->blobFilterTop;
        blobFilterBottom = gs->blobFilterBottom;
        deltaLimit = gs->regionalDeltaLimit;
        belowLimit = gs->regionalBelowLimit;
        refreshLimit = gs->regionalRefreshLimit;
        shadowEnabled = gs->shadowEnabled;
    }
    void restore()
    {
        gs->blobFilterLeft = blobFilterLeft;
        gs->blobFilterRight = blobFilterRight;
        gs->blobFilterTop = blobFilterTop;
        gs->blobFilterBottom = blobFilterBottom;
        gs->regionalDeltaLimit = deltaLimit;
        gs->regionalBelowLimit = belowLimit;
        gs->regionalRefreshLimit = refreshLimit;
        gs->shadowEnabled = shadowEnabled;
    }
};

TEST_F(FingerEngine, EachFingerIsReportedOnceWithinOnePixel)
{
    calibrate();
    const std::vector<Finger> fingers = {{300, 200}, {960, 540}, {1600, 300}, {200, 950}, {1750, 980}, {1000, 120}};
    for (int frame = 0; frame < 3; ++frame) {
        Found f;
        detect(fingers, f);
        EXPECT_EQ(f.size(), int(fingers.size()));
        for (const Finger& g : fingers) {
            const EVector truth = scene.sensorOf(g);
            int seen = 0;
            for (int i = 0; i < f.size(); ++i)
                seen += (f.at(i)->center() - truth).length() < 10 ? 1 : 0;
            EXPECT_EQ(seen, 1) << "finger at " << g.screenX << "," << g.screenY;
            Blob* b = f.near(truth, 10);
            ASSERT_NE(b, nullptr);
            EXPECT_NEAR(b->x, truth.x, 1.0);
            EXPECT_NEAR(b->y, truth.y, 1.0);
        }
    }
}

} // namespace
