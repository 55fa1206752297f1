// Counts heap allocations of the per-frame path once it has settled: the stylus engine,
// the frame matching and the filters.
#include "syntheticframe.h"

#include "interpolation.h"
#include "trackingengine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

static std::atomic<long> allocations{0};

void* operator new(std::size_t n)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

TEST(SteadyState, AFrameAllocatesOnlyItsBlobsAndTheListThatCarriesThem)
{
    TrackingEngine engine(SyntheticFrames::Width, SyntheticFrames::Height, 230, 1, true);
    SyntheticFrames synth(23);
    synth.areas = {{60, 60, 40, 30, 250}};
    std::vector<unsigned char> frame = synth.make({});
    while (engine.learning)
        engine.processImage(frame.data(), false, false);
    BlobList tracked;
    Interpolation bezier(0.6), inertia(0.5);

    auto spotsAt = [](int t) {
        std::vector<Spot> spots;
        for (int i = 0; i < 10; ++i)
            spots.push_back({150.0 + (i % 5) * 110 + (t % 20), 150.0 + (i / 5) * 150 + (t % 20) * 0.5, 7});
        return spots;
    };
    auto run = [&](std::vector<unsigned char>& f, long& made, long& used) {
        const long before = allocations.load();
        AllBlobs found = engine.processImage(f.data(), false, false);
        made = found.size();
        tracked.mergeWith(std::move(found.blobs), 0, nullptr);
        bezier.BezierCurveFilter(&tracked, false);
        inertia.InertiaCurveFilter(&tracked, -1.0);
        used = allocations.load() - before;
    };

    std::vector<std::vector<unsigned char>> moving;
    for (int t = 0; t < 60; ++t)
        moving.push_back(synth.make(spotsAt(t)));
    std::vector<unsigned char> empty = synth.make({});

    long made = 0, used = 0;
    for (int t = 0; t < 60; ++t) // settle: paths reach their cap, scratch its size
        run(moving[t], made, used);
    for (int t = 0; t < 60; ++t) {
        run(moving[t], made, used);
        ASSERT_EQ(made, 10);
        EXPECT_LE(used, made + 1) << "frame " << t;
    }
    run(empty, made, used); // the touches end
    run(empty, made, used);
    for (int t = 0; t < 20; ++t) {
        run(empty, made, used);
        EXPECT_EQ(used, 0) << "an idle frame allocates nothing";
    }
}
