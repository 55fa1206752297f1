// A stylus on a 1920x1080 screen in multi-touch mode: strokes, a tap and two strokes at once
// must arrive on the touch device as one contact each, on the drawn path, and nothing else;
// then 1, 5 and 10 spots at once give the latency from transfer to pointer output.
#include "endtoendrun.h"

#include <cstdio>

namespace {

// Spots of 9 pixels: the small pens have a scene of their own (smallstylus_test.cpp); here the
// latency of many spots at once is the subject. The strokes start well after the calibration is
// in force and the background is learnt, also in the slower sanitizer builds.

const char* const scene = R"(
screen 1920 1080
lens factory
stamp on
stroke stylus 6.0 2.5 size 9 path 300,300 1600,300
tap    stylus 9.0 0.2 size 9 at 960,700
stroke stylus 10.0 1.5 size 9 path 300,500 1500,500
stroke stylus 10.0 1.5 size 9 path 1500,800 300,800
stroke stylus 12.5 2.0 size 9 path 300,150 1600,150
stroke stylus 12.5 2.0 size 9 path 300,350 1600,350
stroke stylus 12.5 2.0 size 9 path 300,550 1600,550
stroke stylus 12.5 2.0 size 9 path 300,750 1600,750
stroke stylus 12.5 2.0 size 9 path 300,950 1600,950
stroke stylus 15.5 2.5 size 9 path 250,110 1650,110
stroke stylus 15.5 2.5 size 9 path 1650,200 250,200
stroke stylus 15.5 2.5 size 9 path 250,290 1650,290
stroke stylus 15.5 2.5 size 9 path 1650,380 250,380
stroke stylus 15.5 2.5 size 9 path 250,470 1650,470
stroke stylus 15.5 2.5 size 9 path 1650,560 250,560
stroke stylus 15.5 2.5 size 9 path 250,650 1650,650
stroke stylus 15.5 2.5 size 9 path 1650,740 250,740
stroke stylus 15.5 2.5 size 9 path 250,830 1650,830
stroke stylus 15.5 2.5 size 9 path 1650,920 250,920
)";

TEST(MultiTouchStylus, EveryStrokeIsOneContactOnItsPathAndLatencyIsReported)
{
    EndToEndRun run;
    ASSERT_NO_FATAL_FAILURE(run.run(scene, 1, 1, 20.0, 1920, 1080));
    expectOneContactPerStroke(run, 1920, 1080, 19, 3.0);

    for (size_t spots : {1u, 5u, 10u}) {
        const std::vector<double> ms = run.latencies(spots);
        // Slow builds lose frames at the device; some of each kind must still get through.
        EXPECT_GE(ms.size(), 20u) << spots << " spots: too few frames reached the output";
        std::printf("latency with %zu spots: median %.2f ms, 99th percentile %.2f ms over %zu frames\n", spots,
                    percentile(ms, 0.5), percentile(ms, 0.99), ms.size());
    }
}

} // namespace
