#include "globalsettings.h"
#include "trackingengine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

constexpr int W = 160;
constexpr int H = 120;

std::vector<unsigned char> frameWith(int x0, int y0)
{
    std::vector<unsigned char> f(std::size_t(W) * H, 10);
    for (int y = y0; y < y0 + 6; ++y)
        for (int x = x0; x < x0 + 6; ++x)
            f[std::size_t(y) * W + x] = 255;
    // A second spot lower down, so that the first keeps its bottom row.
    for (int y = 100; y < 106; ++y)
        for (int x = 20; x < 26; ++x)
            f[std::size_t(y) * W + x] = 255;
    return f;
}

int detected(TrackingEngine& engine, std::vector<unsigned char> f)
{
    AllBlobs all = engine.processImage(f.data(), false, false);
    const int n = all.size();
    for (Blob* b : all.blobs.blobs)
        delete b;
    return n;
}

// The image thread keeps delivering frames while another thread asks for a partial
// reset and waits in it.
TEST(StylusBackgroundReset, PartialResetLearnsTheTopUpFramesIntoAZeroedTableAndBlocks)
{
    TrackingEngine engine(W, H, 230, 1, true);
    const std::vector<unsigned char> before = frameWith(40, 40); // learned: masked afterwards
    while (engine.learning)
        detected(engine, before);
    ASSERT_EQ(detected(engine, before), 0);

    std::atomic<bool> resetReturned{false};
    std::thread resetter([&] {
        engine.resetBackgroundTable(false);
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
    EXPECT_EQ(learnedFrames, GS::instance()->stylusBgTopUpFrames);
    EXPECT_EQ(engine.learnedFrames, engine.framesToLearn);

    // The old background is forgotten: the spot at the first place is seen again,
    // the one learned during the reset is masked.
    EXPECT_EQ(detected(engine, frameWith(40, 40)), 1);
    EXPECT_EQ(detected(engine, after), 0);
}

TEST(StylusBackgroundReset, AFullResetLearnsAllFrames)
{
    TrackingEngine engine(W, H, 230, 1, true);
    const std::vector<unsigned char> f = frameWith(40, 40);
    while (engine.learning)
        detected(engine, f);
    std::thread resetter([&] { engine.resetBackgroundTable(true); });
    while (!engine.clearTable)
        std::this_thread::yield();
    int learnedFrames = 0;
    while (engine.learning) {
        detected(engine, f);
        ++learnedFrames;
    }
    resetter.join();
    EXPECT_EQ(learnedFrames, GS::instance()->stylusBgFrames);
}

} // namespace
