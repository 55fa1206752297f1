#include "fingerscene.h"
#include "ownedblobs.h"

#include "boxtrackingengine.h"
#include "globalsettings.h"
#include "scopedsetting.h"
#include "trackingengine.h"

#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include <atomic>
#include <thread>

constexpr int W = 160;
constexpr int H = 120;

static std::vector<unsigned char> frameWith(int x0, int y0)
{
    std::vector<unsigned char> f(std::size_t(W) * H, 10);
    cv::Mat(H, W, CV_8UC1, f.data())(cv::Rect(x0, y0, 6, 6)).setTo(255);
    // A second spot lower down, so that the first keeps its bottom row.
    cv::Mat(H, W, CV_8UC1, f.data())(cv::Rect(20, 100, 6, 6)).setTo(255);
    return f;
}

static int detected(TrackingEngine& engine, std::vector<unsigned char> f)
{
    return OwnedBlobs(engine.processImage(f.data(), false, false)).size();
}

// The image thread keeps delivering frames while another thread asks for a reset and waits
// in it: a partial one learns the top-up frames, a full one all frames, into a zeroed table.
TEST(StylusBackgroundReset, ResetLearnsIntoAZeroedTableAndBlocks)
{
    for (const bool full : {false, true}) {
        SCOPED_TRACE(full ? "full" : "partial");
        TrackingEngine engine(W, H, 230, 1, true);
        const std::vector<unsigned char> before = frameWith(40, 40); // learned: masked afterwards
        while (engine.learning)
            detected(engine, before);
        ASSERT_EQ(detected(engine, before), 0);

        std::atomic<bool> resetReturned{false};
        std::thread resetter([&] {
            engine.resetBackgroundTable(full);
            resetReturned = true;
        });
        // Wait until the reset has made all three writes, then count what is learned.
        while (!engine.clearTable)
            std::this_thread::yield();
        const std::vector<unsigned char> after = frameWith(100, 40);
        int learnedFrames = 0;
        while (engine.learning) {
            EXPECT_FALSE(resetReturned) << "the caller waits until learning is done";
            EXPECT_EQ(detected(engine, after), 0);
            ++learnedFrames;
        }
        resetter.join();
        EXPECT_TRUE(resetReturned);
        EXPECT_EQ(learnedFrames, full ? GS::instance()->stylusBgFrames : GS::instance()->stylusBgTopUpFrames);
        EXPECT_EQ(engine.learnedFrames, engine.framesToLearn);
        // The old background is forgotten: the spot at the first place is seen again,
        // the one learned during the reset is masked.
        EXPECT_EQ((std::pair{detected(engine, before), detected(engine, after)}), std::pair(1, 0));
    }
}

// The system resets the finger background from its main thread while frames arrive on the
// image thread; the call returns once learning and the refresh have run on those frames.
TEST(BoxBackgroundReset, ResetFromAnotherThreadWaitsForTheFramesThatDoIt)
{
    GS* gs = GS::instance();
    ScopedSetting deltaLimit(gs->regionalDeltaLimit, 8);
    FingerScene scene;
    std::unique_ptr<Calibration> calibration = scene.calibration();
    BoxTrackingEngine engine(FingerScene::Width, FingerScene::Height, gs->boxFactor, gs->boxParameter);
    engine.setCalibration(calibration.get(), gs->boxParameter);

    std::vector<std::vector<unsigned char>> frames;
    for (int i = 0; i < 4; ++i)
        frames.push_back(scene.frame());
    std::atomic<bool> stop{false};
    std::atomic<int> reported{0};
    std::thread imageThread([&] {
        std::vector<unsigned char> f;
        for (int i = 0; !stop; ++i) {
            f = frames[std::size_t(i % 4)];
            reported += OwnedBlobs(engine.processImage(f.data(), false, false)).count();
        }
    });

    engine.resetBackgroundTable(false);
    EXPECT_EQ(engine.learnCount.load(), engine.learnFrames);
    EXPECT_GE(engine.updateCount.load(), engine.updateFrames);
    engine.resetBackgroundTable(true); // the short one
    EXPECT_GE(engine.updateCount.load(), engine.updateFrames);
    // A new calibration while frames run: the exchange waits for the frame in work.
    engine.setCalibration(calibration.get(), gs->boxParameter);
    engine.resetBackgroundTable(false);
    EXPECT_EQ(engine.learnCount.load(), engine.learnFrames);
    stop = true;
    imageThread.join();
    EXPECT_EQ(reported.load(), 0);
    for (const ScanBox& box : engine.boxes)
        ASSERT_GE(box.bgIntensity, scene.background) << "every box has learned the empty scene";
}
