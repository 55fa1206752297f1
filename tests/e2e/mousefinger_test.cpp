// Fingers in single-pointer mode on a private X server: each stroke and the tap must reach
// the server as one left press and release, with the pointer on the drawn path throughout,
// and the touch device must stay silent.
#include "desktoprecorder.h"

namespace {

// Inside the test window, (100, 100) to (900, 700) of the 1280x1024 desktop; the finger's
// brightness is given at the finger mode's exposure. One finger at a time: the single
// pointer follows the first touch only.
const char* const scene = R"(
screen 1280 1024
lens factory
laser follow
exposure 30
stroke finger 6.0 1.5 size 10 brightness 120 path 150,150 850,180
tap    finger 8.0 0.25 size 10 brightness 120 at 500,450
stroke finger 9.0 1.5 size 10 brightness 120 path 800,650 200,300
)";

TEST(MouseFinger, EveryStrokeIsOneLeftDragOnItsPath)
{
    expectLeftDragPerStroke(scene, 0, 12.0, 3, 3.0);
}

} // namespace
