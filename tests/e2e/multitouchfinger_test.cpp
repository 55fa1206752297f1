// Fingers on the laser curtain of a 1920x1080 screen in multi-touch mode: strokes across the
// whole surface, near the camera and far from it, a tap and two fingers at once must arrive on
// the touch device as one contact each, on the drawn path, and nothing else.
#include "endtoendrun.h"

namespace {

// A finger is a broad, dim spot that only shows while the laser is on; its brightness is
// given at the exposure the finger mode sets (30). The strokes start once the calibration is in force and the
// background is learnt, also in sanitizer builds. Strokes are straight: the position
// filters cut a corner taken at full speed by a few pixels, more so when a slow build drops
// frames.
const char* const scene = R"(
screen 1920 1080
lens factory
stamp on
laser follow
exposure 30
stroke finger 6.0 2.0 size 10 brightness 120 path 300,300 1600,300
stroke finger 8.5 2.0 size 10 brightness 120 path 1650,120 250,120
stroke finger 11.0 2.0 size 10 brightness 120 path 300,800 1650,350
tap    finger 13.5 0.25 size 10 brightness 120 at 960,540
stroke finger 14.5 2.0 size 10 brightness 120 path 250,950 1650,950
stroke finger 17.0 2.0 size 10 brightness 120 path 300,650 1500,650
stroke finger 17.0 2.5 size 10 brightness 120 path 1700,200 200,900
)";

TEST(MultiTouchFinger, EveryStrokeIsOneContactOnItsPath)
{
    EndToEndRun run;
    ASSERT_NO_FATAL_FAILURE(run.run(scene, 0, 1, 21.0, 1920, 1080));

    expectOneContactPerStroke(run, 1920, 1080, 7, 3.0);
}

} // namespace
