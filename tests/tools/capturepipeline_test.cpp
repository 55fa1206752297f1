// The real Sensor and both frame threads against the emulated sensor, through the sensor
// probe: what the device received, and which frames reached the frame callback and how.
#include "emulatedrun.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <set>
#include <tuple>

namespace {

using Write = EmulatedRun::Write;
constexpr auto reg = &Write::reg;
constexpr auto out = &Write::out;

// Where `part` occurs in `all` as a contiguous run from `from` on, or npos.
size_t findRun(const std::vector<Write>& all, const std::vector<Write>& part, size_t from = 0)
{
    for (size_t i = from; i + part.size() <= all.size(); ++i)
        if (std::equal(part.begin(), part.end(), all.begin() + static_cast<long>(i)))
            return i;
    return std::string::npos;
}

// Every frame the callback saw was sent whole by the device and shows its window, after
// binning, at its place in the full frame with black around it. The exception: a buffer that
// waited in the ring while the geometry changed is cleared and delivered once the change is
// over, with its old length; it blanks the top of the frame, or all of it. At most one per
// buffer and change.
void expectSeenFramesMatchWhatWasSent(const EmulatedRun& run, size_t atLeast, size_t changes = 0)
{
    const auto sent = run.truth();
    const auto seen = run.records();
    ASSERT_GE(seen.size(), atLeast);
    std::set<long> once;
    size_t cleared = 0;
    for (const auto& r : seen) {
        const auto it = sent.find(r.stamp);
        const bool whole = it != sent.end() && r.x == it->second.x / it->second.binX
            && r.y == it->second.y / it->second.binY;
        if (r.w == 0 || !whole) {
            ++cleared;
            continue;
        }
        // Bytes sent, and the callback's size: a short frame must not be delivered.
        const auto& s = it->second;
        EXPECT_EQ(std::tuple(s.bytes, r.w, r.h), std::tuple((s.w / s.binX) * (s.h / s.binY), s.w / s.binX, s.h / s.binY))
            << r.stamp;
        // The ring is served in index order, so a late frame may overtake; none comes twice.
        EXPECT_TRUE(once.insert(r.stamp).second) << "frame " << r.stamp << " delivered twice";
    }
    EXPECT_LE(cleared, 4 * changes);
}

// The probe run to its clean end.
void probe(EmulatedRun& run, const QStringList& options, const QStringList& script, int ms = 120000)
{
    run.startProbe(options, script);
    ASSERT_TRUE(run.finish(ms)) << qPrintable(run.output);
    ASSERT_TRUE(run.endedCleanly()) << qPrintable(run.output.right(4000));
}

} // namespace

TEST(CapturePipeline, EveryWriteReachesTheDeviceTwiceWithFixedBlankingAndTheWindowArithmetic)
{
    EmulatedRun run("stamp on\n");
    std::ofstream(run.path("sensor.conf")) << "# start-up registers\nREG= 0005, 061\nREG= 0006, 017\n"
                                              "REG= 0021, 123\nREG= 000B, 030\n";
    // 0.4 rounds to 0: window minima and the blanking formula, yet not exactly 0, so the
    // once-a-second regulator stays out of the way of the writes checked here.
    ASSERT_NO_FATAL_FAILURE(probe(run, {"--sensor", QString::fromStdString(run.path("sensor.conf")), "--factor", "0.4"},
                                  QString("minimum 100 100 window -5 -5 3 3 window 745 0 100 100 binning 3 0 exposure 45 "
                                          "laser 1 laser 0 filter 1 filter 0 frames 3 stop")
                                      .split(' ')));

    const auto all = run.writes();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.front().kind, "start");
    const auto w = run.pairedWrites();

    // The device always runs with the fixed blanking, whatever was asked.
    for (const Write& x : w)
        if (x.kind == "reg" && (x.a == 5 || x.a == 6)) {
            EXPECT_EQ(x.b, x.a == 5 ? 999 : 47) << "register " << x.a;
        }
    // The register file, in its order, before the stream's threads ran.
    ASSERT_EQ(findRun(w, {reg(5, 999), reg(6, 47), reg(33, 123), reg(11, 30)}), 0u);
    for (size_t i = 0; i < 8; ++i)
        EXPECT_FALSE(all[1 + i].async);

    // (-5, -5, 3, 3) with the minima 100 x 100 is a 100 x 100 window at the origin; a window
    // at x 745 is pushed back into the 752 columns.
    const size_t first = findRun(w, {reg(1, 1), reg(2, 4), reg(3, 100), reg(4, 100)});
    const size_t second = findRun(w, {reg(1, 653), reg(2, 4), reg(3, 100), reg(4, 100)}, first + 1);
    ASSERT_NE(first, std::string::npos);
    ASSERT_NE(second, std::string::npos);
    // Binning 3 x 0 is 4 rows by 1 column: register 13 gets 2, and the window is set again.
    const size_t binning = findRun(w, {reg(13, 2)}, second);
    ASSERT_NE(binning, std::string::npos);
    EXPECT_NE(findRun(w, {reg(1, 653), reg(2, 4), reg(3, 100), reg(4, 100)}, binning), std::string::npos);
    EXPECT_NE(findRun(w, {reg(11, 45), reg(27, 0), reg(27, 2)}, binning), std::string::npos);
    // Filter to the picture, then back to tracking: each a rising and a falling pulse, three
    // data bytes once the stream runs.
    ASSERT_NE(findRun(w, {out(128, 1, 3), out(128, 0, 3), out(64, 1, 3), out(64, 0, 3)}), std::string::npos);

    // Pauses of the pulses: 50 ms after every output write, 100 ms after each level.
    std::vector<Write> outs;
    std::copy_if(all.begin(), all.end(), std::back_inserter(outs), [](const Write& x) { return x.kind == "out"; });
    ASSERT_EQ(outs.size(), 8u);
    for (size_t i = 1; i < outs.size(); ++i)
        EXPECT_GE(outs[i].t - outs[i - 1].t, i % 2 ? 0.049 : 0.149) << "before output write " << i;

    // The device streams the last geometry: 100 x 100 at (652, 0), 4 rows binned to one.
    const auto sent = run.truth();
    ASSERT_FALSE(sent.empty());
    const auto& l = sent.rbegin()->second;
    EXPECT_EQ(std::tuple(l.x, l.y, l.w, l.h, l.binX, l.binY, l.bytes), std::tuple(652, 0, 100, 100, 1, 4, 2500));
    const auto seen = run.records();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(std::tuple(seen.back().x, seen.back().w, seen.back().h), std::tuple(652, 100, 25));
}

TEST(CapturePipeline, WindowAndBinningChangesWhileStreamingShowOnlyFramesOfTheNewGeometry)
{
    EmulatedRun run("stamp on\n");
    ASSERT_NO_FATAL_FAILURE(probe(run, {},
                                  QString("frames 10 window 100 50 200 100 frames 10 binning 2 2 frames 10 "
                                          "window 0 0 752 480 frames 10 binning 1 4 frames 10 stop")
                                      .split(' ')));
    expectSeenFramesMatchWhatWasSent(run, 40, 5);

    // Each geometry reached the callback.
    std::vector<std::array<int, 4>> boxes;
    for (const auto& r : run.records())
        if (r.w > 0 && (boxes.empty() || boxes.back() != std::array<int, 4>{r.x, r.y, r.w, r.h}))
            boxes.push_back({r.x, r.y, r.w, r.h});
    const std::vector<std::array<int, 4>> expected{
        {0, 0, 752, 480}, {100, 50, 200, 100}, {50, 25, 100, 50}, {0, 0, 376, 240}, {0, 0, 188, 480}};
    EXPECT_EQ(boxes, expected);
    EXPECT_FALSE(run.output.contains("low data:")) << "frames of an older geometry are dropped without a word";
}

TEST(CapturePipeline, ShortFramesAreDroppedWithTheirLogLine)
{
    EmulatedRun run("stamp on\nfault short 0.6 0.3\n");
    // Long enough past the fault that a sanitizer build on a busy machine, which delivers
    // a tenth of the frames, still shows the stream going on.
    ASSERT_NO_FATAL_FAILURE(probe(run, {}, {"sleep", "2000", "stop"}));
    EXPECT_TRUE(run.output.contains("low data: 180480  /  360960")) << qPrintable(run.output);
    expectSeenFramesMatchWhatWasSent(run, 10);
    // And the stream goes on after the fault.
    EXPECT_GT(run.truth().at(run.records().back().stamp).t, 0.9);
}

TEST(CapturePipeline, NewestFramesAreLostSilentlyWhileTheCallbackIsSlow)
{
    EmulatedRun run("stamp on\n");
    // 100 ms per frame at 120 frames a second: the ring of four fills and stays full, even
    // when a loaded machine lets the device send only a fraction of its frames.
    ASSERT_NO_FATAL_FAILURE(probe(run, {"--callback-us", "100000"}, {"sleep", "2000", "stop"}));
    const auto sent = run.truth();
    const auto seen = run.records();
    ASSERT_GE(seen.size(), 5u);
    std::set<long> delivered;
    long newest = 0;
    for (const auto& r : seen) {
        EXPECT_EQ(sent.count(r.stamp), 1u);
        delivered.insert(r.stamp);
        newest = std::max(newest, r.stamp);
    }
    // Transfers kept running while the ring was full: frames came whole and went nowhere.
    size_t dropped = 0;
    for (const auto& [frame, s] : sent)
        dropped += frame < newest && !delivered.count(frame) && s.bytes == 752 * 480;
    EXPECT_GE(dropped, 10u);
    EXPECT_FALSE(run.output.contains("low data:"));
}

TEST(CapturePipeline, StreamsAtNormalPriorityWithoutTheRightToRaiseIt)
{
    EmulatedRun run("stamp on\n");
    // Taken from the bounding set, so that not even root gets it back at exec.
    run.process.setChildProcessModifier([] {
        prctl(PR_CAPBSET_DROP, CAP_SYS_NICE, 0, 0, 0);
        const rlimit none{0, 0};
        setrlimit(RLIMIT_RTPRIO, &none);
    });
    ASSERT_NO_FATAL_FAILURE(probe(run, {}, {"frames", "30", "stop"}));
    EXPECT_TRUE(run.output.contains("Error while setting thread priority to  99")) << qPrintable(run.output);
    expectSeenFramesMatchWhatWasSent(run, 30);
}

// Also the run that the sanitizer builds check: 2,000 frames with the window and binning
// changed every 100 frames, then a stop with the full clean-up.
TEST(CapturePipeline, TwoThousandFramesWithWindowChangesAndACleanStop)
{
    EmulatedRun run("stamp on\nfps 240\n");
    const char* changes[] = {"window 100 50 200 100", "binning 2 2", "window 0 0 752 480", "window 300 200 400 240",
                             "binning 1 1"};
    QStringList script;
    for (int k = 0; k < 20; ++k)
        script << QString(changes[k % 5]).split(' ') << "frames" << "100";
    script << "stop";
    ASSERT_NO_FATAL_FAILURE(probe(run, {}, script, 300000));
    EXPECT_TRUE(run.output.contains("cleaned up!"));
    expectSeenFramesMatchWhatWasSent(run, 2000, 20);
}
