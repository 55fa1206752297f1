#include "fingerscene.h"
#include "ownedblobs.h"

#include "boxtrackingengine.h"
#include "globalsettings.h"
#include "scopedsetting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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
