// A stylus of the emulator's default size (5 pixels) and one of 4 pixels, the size of a pen
// tip seen on a wall-sized picture, in stylus mode with the factory settings: every stroke
// must arrive as one contact on its path.
#include "endtoendrun.h"

namespace {

// About 600 desktop pixels a second, so that the slower sanitizer builds, which lose frames,
// still see each spot often enough; no two strokes cross.
const char* const scene = R"(
screen 1920 1080
lens factory
stamp on
stroke stylus 3.0 2.8 size 5 path 100,120 1820,120
stroke stylus 3.0 2.8 size 4 path 1820,960 100,960
stroke stylus 6.2 2.8 size 4 path 100,300 1820,300
stroke stylus 6.2 2.8 size 5 path 1820,780 100,780
stroke stylus 9.4 3.5 size 4 path 60,60 1860,1020
stroke stylus 13.2 3.5 size 5 path 1860,60 60,1020
stroke stylus 17.0 2.0 size 4 path 300,540 1600,540
stroke stylus 17.0 2.0 size 5 path 1800,100 1800,1000
)";

TEST(SmallStylus, StrokesOfFourAndFivePixelsArriveWholeOnTheirPaths)
{
    EndToEndRun run;
    ASSERT_NO_FATAL_FAILURE(run.run(scene, 1, 1, 19.5, 1920, 1080));
    expectOneContactPerStroke(run, 1920, 1080, 8, 3.0);
}

} // namespace
