// A stylus of the emulator's default size (5 pixels) and one of 4 pixels, the size of a pen
// tip seen on a wall-sized picture, in stylus mode with the factory settings: every stroke
// must arrive as one contact on its path. Then short taps, one after another from the start,
// give the time from the start of the service to the first touch it reports.
#include "endtoendrun.h"

#include <cstdio>
#include <sstream>

namespace {

const char* const scene = R"(
screen 1920 1080
lens factory
stamp on
stroke stylus 3.0 2.0 size 5 path 100,120 1820,120
stroke stylus 3.0 2.0 size 4 path 1820,960 100,960
stroke stylus 5.5 2.0 size 4 path 100,300 1820,300
stroke stylus 5.5 2.0 size 5 path 1820,780 100,780
stroke stylus 8.0 2.5 size 4 path 60,60 1860,1020
stroke stylus 10.8 2.5 size 5 path 1860,60 60,1020
stroke stylus 13.5 1.5 size 4 path 300,540 1600,540
stroke stylus 13.5 1.5 size 5 path 960,100 960,1000
)";

TEST(SmallStylus, StrokesOfFourAndFivePixelsArriveWholeOnTheirPaths)
{
    EndToEndRun run;
    run.run(scene, 1, 1, 15.5, 1920, 1080);
    ASSERT_TRUE(run.started);
    expectOneContactPerStroke(run, 1920, 1080, 8, 3.0);
}

// A spot that is there while the background is learnt becomes background, so readiness is
// probed by a new tap every 50 ms, each at a place of its own.
TEST(SmallStylus, TimeToTheFirstTouch)
{
    std::ostringstream taps;
    taps << "screen 1920 1080\nlens factory\nstamp on\n";
    for (int i = 0; i < 50; ++i)
        taps << "tap stylus " << 0.05 * i << " 0.04 size 9 at " << 200 + 150 * (i % 10) << "," << 150 + 180 * (i / 10)
             << "\n";
    EndToEndRun run;
    run.run(taps.str(), 1, 1, 3.5, 1920, 1080);
    ASSERT_TRUE(run.started);
    ASSERT_FALSE(run.handledAt.empty()) << "no tap was reported";
    const auto first = run.handledAt.begin();
    std::printf("first touch reported %.3f s after the start (frame %u)\n", (first->second - run.startNs) / 1e9,
                first->first);
}

} // namespace
