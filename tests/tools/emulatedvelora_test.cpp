// The velora program with the factory config/ against the emulated sensor: waiting for the
// device, the start-up writes, streaming, and the end when the device is unplugged.
#include "emulatedrun.h"

#include <QRegularExpression>
#include <QStandardPaths>

#include <algorithm>

namespace {

QString statusFile()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/Velora/pensettings.ini";
}

QString readStatus()
{
    QFile f(statusFile());
    return f.open(QIODevice::ReadOnly) ? QString::fromLatin1(f.readAll()) : QString();
}

} // namespace

TEST(EmulatedVelora, WaitsForTheDeviceWithStatusMinusOneThenStartsItAndStreams)
{
    QFile::remove(statusFile());
    EmulatedRun run("appear 2.5\n");
    run.startVelora();
    ASSERT_TRUE(run.waitForOutput("No device connected.")) << qPrintable(run.output);
    // The file is written afresh once a second: read it between two writes.
    waitUntil([] { return readStatus() == "Result=-1"; }, 10000);
    EXPECT_EQ(readStatus(), "Result=-1");
    // It keeps asking, once a second, until the device is there.
    ASSERT_TRUE(run.waitForOutput("Sensor connect done")) << qPrintable(run.output);
    EXPECT_GE(run.output.count("No device connected."), 2) << qPrintable(run.output);
    EXPECT_EQ(run.output.count("No device connected."), run.output.count("\"Result=-1\""));
    ASSERT_TRUE(run.waitForOutput("FPS: ")) << qPrintable(run.output);
    const QRegularExpression fps(R"(FPS:  (\d+)  data:  \d+)");
    const auto m = fps.match(run.output);
    ASSERT_TRUE(m.hasMatch()) << qPrintable(run.output);
    EXPECT_GT(m.captured(1).toInt(), 0);
    // The start-up goes on beside the stream, the filter's pulse on a thread of its own: wait
    // for both pulse writes and the fourteen register writes (each sent twice), whichever
    // comes last; a register written again later must not stand in for the pulse's end.
    waitUntil(
        [&run] {
            const auto w = run.controlWrites();
            const auto outs = std::count_if(w.begin(), w.end(), [](const auto& x) { return x.kind == "out"; });
            return outs >= 4 && std::ptrdiff_t(w.size()) - outs >= 28;
        },
        30000);
    run.process.kill();
    run.finish();

    // The start-up as the device saw it, with the factory files: the register file, then
    // exposure, binning with the whole window and the laser on; beside them, the filter's pulse
    // to tracking. Each write's two copies stay together.
    using W = EmulatedRun::Write;
    const auto r = &W::reg;
    const std::vector<W> registers{r(5, 999), r(6, 47), r(11, 30), r(13, 0), r(27, 2), r(11, 30), r(13, 0), r(5, 999),
                                   r(6, 47),  r(1, 1),  r(2, 4),   r(3, 480), r(4, 752), r(27, 0)};
    const std::vector<W> outputs{W::out(64, 1, 3), W::out(64, 0, 3)};
    const auto all = run.writes();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.front().kind, "start");
    std::vector<W> regs, outs;
    for (const W& w : run.pairedWrites(true))
        (w.kind == "out" ? outs : regs).push_back(w);
    for (const auto& [seen, expected] : {std::pair{&regs, &registers}, std::pair{&outs, &outputs}}) {
        ASSERT_GE(seen->size(), expected->size());
        EXPECT_EQ(std::vector<W>(seen->begin(), seen->begin() + std::ssize(*expected)), *expected);
    }
    EXPECT_FALSE(run.truth().empty());
}

TEST(EmulatedVelora, UnplugEndsTheProcessWithItsCleanUpStatusMinusOneAndExitStatusZero)
{
    QFile::remove(statusFile());
    // The device goes quiet a little before, so that a transfer is surely in flight.
    EmulatedRun run("fault timeout 3.0\nunplug 3.3\n");
    run.startVelora();
    ASSERT_TRUE(run.finish(60000)) << qPrintable(run.output);
    EXPECT_TRUE(run.endedCleanly()) << "exit " << run.process.exitCode() << "\n" << qPrintable(run.output);
    const QRegularExpression order(
        R"(low data: 0  /  \d+(.|\n)*outside readusb loop(.|\n)*Free buffers(.|\n)*Clear halts and close libusb)"
        R"((.|\n)*Sensor stopping done, all cleaned up!(.|\n)*Device plugged out, exit(.|\n)*"Result=-1")");
    EXPECT_TRUE(order.match(run.output).hasMatch()) << qPrintable(run.output);
    EXPECT_EQ(readStatus(), "Result=-1");
}
