// velora-ctl with the real velora on the emulated sensor: the service started under the
// guard it holds, driven by command names, and gone soon after the guard's holder is.
#include "emulatedrun.h"

#include <QDateTime>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>

namespace {

QString velora()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/Velora/";
}

class Ctl : public ::testing::Test {
protected:
    EmulatedRun run{"screen 1920 1080\nlens factory\n"};

    // velora and velora-ctl side by side with the factory files, calibrated for the scene.
    void SetUp() override
    {
        QDir().mkpath(velora());
        const QString tools = QFileInfo(VELORA_BINARY).absolutePath();
        for (const char* kind : {"finger", "stylus"})
            ASSERT_EQ(QProcess::execute(tools + "/velora-scene-calibration",
                                        {QString::fromStdString(run.path("scene.txt")), velora() + kind + "-velora.ini"}),
                      0);
        ASSERT_TRUE(QFile::copy(tools + "/velora-ctl", run.dir.filePath("velora-ctl")));
        run.installVelora();
    }

    void startService()
    {
        // The start-up's calibration load answers too, unasked, 100 ms after its status: a
        // command sent before that answer would take it as its own. An answer older than
        // the status is the report of a command left from before the start.
        const QString answer = velora() + "refifo";
        QFile::remove(answer);
        run.start(run.dir.filePath("velora-ctl"), {"run", "--log", run.dir.filePath("velora.log")});
        ASSERT_TRUE(run.waitForOutput("velora: ready")) << qPrintable(run.output);
        const QDateTime ready = QFileInfo(velora() + "pensettings.ini").lastModified();
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
        QFile left(velora() + "fifo1");
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
    QFile user(velora() + "user.ini");
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
