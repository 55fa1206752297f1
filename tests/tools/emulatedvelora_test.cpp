// The velora program with the factory config/ against the emulated sensor: waiting for the
// device, the start-up writes, streaming, and the end when the device is unplugged, also at
// any moment of the start-up. And velora-ctl with it: the service started under the guard it
// holds, driven by command names, and gone soon after the guard's holder is.
#include "emulatedrun.h"

#include <QDateTime>
#include <QRegularExpression>

#include <algorithm>

namespace {

QString statusFile()
{
    return userDir() + "pensettings.ini";
}

QString readStatus()
{
    return QString::fromLatin1(fileBytes(statusFile()));
}

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

// The device goes quiet a little before the unplug, so that a transfer is surely in flight; then
// it appears late and goes again at many moments of the start-up steps and of the stream. The
// process must end cleanly every time, with no crash while it ends.
TEST(EmulatedVelora, UnplugAtAnyMomentEndsTheProcessCleanlyWithStatusMinusOne)
{
    std::vector<std::string> scenes{"fault timeout 3.0\nunplug 3.3\n"};
    for (const double unplugAt : {0.0, 0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8, 1.0, 1.5, 2.0})
        scenes.push_back("appear 0.5\nunplug " + std::to_string(unplugAt) + "\n");
    const QRegularExpression order(
        R"(low data: 0  /  \d+(.|\n)*outside readusb loop(.|\n)*Free buffers(.|\n)*Clear halts and close libusb)"
        R"((.|\n)*Sensor stopping done, all cleaned up!(.|\n)*Device plugged out, exit(.|\n)*"Result=-1")");
    for (const std::string& scene : scenes) {
        SCOPED_TRACE(scene);
        QFile::remove(statusFile());
        EmulatedRun run(scene);
        run.startVelora();
        ASSERT_TRUE(run.finish(60000)) << qPrintable(run.output);
        EXPECT_TRUE(run.endedCleanly()) << "exit " << run.process.exitCode() << "\n" << qPrintable(run.output);
        EXPECT_TRUE(run.output.contains("Device plugged out, exit")) << qPrintable(run.output.right(3000));
        EXPECT_FALSE(run.output.contains("Sanitizer")) << qPrintable(run.output);
        // With a stream that ran, its whole clean-up in order, and the status of no device.
        if (scene == scenes.front()) {
            EXPECT_TRUE(order.match(run.output).hasMatch()) << qPrintable(run.output);
            EXPECT_EQ(readStatus(), "Result=-1");
        }
    }
}

class Ctl : public ::testing::Test {
protected:
    EmulatedRun run{"screen 1920 1080\nlens factory\n"};

    // velora and velora-ctl side by side with the factory files, calibrated for the scene.
    void SetUp() override
    {
        QDir().mkpath(userDir());
        for (const char* kind : {"finger", "stylus"})
            ASSERT_EQ(sceneCalibration(run.path("scene.txt"), userDir() + kind + "-velora.ini"), 0);
        ASSERT_TRUE(QFile::copy(toolPath("velora-ctl"), run.dir.filePath("velora-ctl")));
        run.installVelora();
    }

    void startService()
    {
        // The start-up's calibration load answers too, unasked, 100 ms after its status: a
        // command sent before that answer would take it as its own. An answer older than
        // the status is the report of a command left from before the start.
        const QString answer = userDir() + "refifo";
        QFile::remove(answer);
        run.start(run.dir.filePath("velora-ctl"), {"run", "--log", run.dir.filePath("velora.log")});
        ASSERT_TRUE(run.waitForOutput("velora: ready")) << qPrintable(run.output);
        const QDateTime ready = QFileInfo(userDir() + "pensettings.ini").lastModified();
        const auto answered = [&] {
            const QFileInfo a(answer);
            if (a.exists() && a.lastModified() < ready)
                QFile::remove(answer);
            return QFileInfo(answer).exists();
        };
        ASSERT_TRUE(waitUntil(answered, 5000)) << qPrintable(serviceLog());
    }

    // Exit code and line.
    std::pair<int, std::string> ctl(const QStringList& command)
    {
        QProcess p;
        p.start(run.dir.filePath("velora-ctl"), command);
        p.waitForFinished(60000);
        return {p.exitCode(), QString::fromLocal8Bit(p.readAllStandardOutput()).trimmed().toStdString()};
    }

    QString serviceLog() const { return QString::fromStdString(run.fileText("velora.log")); }
};

TEST_F(Ctl, DrivesTheServiceItStartedUnderItsGuard)
{
    // A command from before the start is reported, not carried out: this one would quit.
    {
        QFile left(userDir() + "fifo1");
        ASSERT_TRUE(left.open(QIODevice::WriteOnly));
        left.write("Q\n");
    }
    startService();
    EXPECT_TRUE(serviceLog().contains("Ipc message received:  1000")) << qPrintable(serviceLog());

    const std::pair<QStringList, std::pair<int, std::string>> steps[] = {
        {{"status"}, {0, "ready"}}, {{"stylus"}, {0, "ready"}}, {{"reset"}, {0, "done"}},
        {{"calibrate", "bar"}, {3, "refused: not calibrated"}}, {{"offset"}, {3, "not calibrated"}},
        {{"status"}, {3, "not calibrated"}}, {{"bogus"}, {64, ""}}, {{"quit"}, {0, "done"}},
    };
    for (const auto& [command, reply] : steps)
        EXPECT_EQ(ctl(command), reply) << qPrintable(command.join(' '));
    QFile user(userDir() + "user.ini");
    ASSERT_TRUE(user.open(QIODevice::ReadOnly));
    EXPECT_EQ(user.readLine().trimmed(), "1") << "the mode change is kept";

    ASSERT_TRUE(run.finish(15000)) << qPrintable(run.output);
    EXPECT_TRUE(run.endedCleanly()) << qPrintable(run.output);
    EXPECT_TRUE(run.output.contains("velora ended (exit status 0)")) << qPrintable(run.output);
    EXPECT_TRUE(serviceLog().contains("quit velora main")) << qPrintable(serviceLog());
}

TEST_F(Ctl, TheServiceEndsSoonAfterTheGuardsHolderIsKilled)
{
    startService();
    const auto m = QRegularExpression(R"(velora started \(pid (\d+)\))").match(run.output);
    ASSERT_TRUE(m.hasMatch()) << qPrintable(run.output);
    const QString proc = "/proc/" + m.captured(1) + "/stat";
    run.process.kill();
    run.finish();
    // Orphaned, it is reaped by whoever adopts it; until then it shows as a zombie.
    EXPECT_TRUE(waitUntil(
        [&] {
            QFile stat(proc);
            return !stat.open(QIODevice::ReadOnly) || stat.readAll().contains(") Z ");
        },
        15000));
    EXPECT_TRUE(serviceLog().contains("Detected app is not running anymore")) << qPrintable(serviceLog());
}

} // namespace
