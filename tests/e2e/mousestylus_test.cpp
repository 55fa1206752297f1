// A stylus in single-pointer mode on a private X server: each stroke
// and the tap must reach the server as one left press and release, with the pointer on the
// drawn path throughout, and the touch device must stay silent.
#include "desktoprecorder.h"

namespace {

// Spots as large as in the multi-touch run, for the same reason. The strokes keep inside the
// test window, (100, 100) to (900, 700) of the 1280x1024 desktop, so that every button event
// lands on it.
const char* const scene = R"(
screen 1280 1024
lens factory
stroke stylus 6.0 1.5 size 9 path 200,200 800,200
tap    stylus 8.5 0.2 size 9 at 500,450
stroke stylus 10.0 1.5 size 9 path 250,650 750,300
)";

TEST(MouseStylus, EveryStrokeIsOneLeftDragOnItsPath)
{
    expectLeftDragPerStroke(scene, 1, 13.0, 3, 3.0);
}

} // namespace
