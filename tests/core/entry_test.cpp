// The velora program as a user starts it: the menu guard, -v, the settings beside the
// program, the log line format.
#include "runguard.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>

namespace {

// A copy of the program with its own config/ beside it, so a test may spoil the settings.
class Program : public ::testing::Test {
protected:
    QTemporaryDir dir;
    QString program = dir.filePath("velora");
    // Killed and awaited, if still running, as it goes.
    QProcess process;

    void SetUp() override
    {
        ASSERT_TRUE(QFile::copy(VELORA_BINARY, program));
        QDir().mkpath(dir.filePath("config"));
        const QDir factory(VELORA_SOURCE_DIR "/config");
        for (const QString& name : factory.entryList(QDir::Files))
            ASSERT_TRUE(QFile::copy(factory.filePath(name), dir.filePath("config/" + name)));
        process.setProgram(program);
        // The factory paths are relative: the program runs where its config/ is.
        process.setWorkingDirectory(dir.path());
        process.setProcessChannelMode(QProcess::SeparateChannels);
    }
    void start(const QStringList& args)
    {
        process.setArguments(args);
        process.start();
        ASSERT_TRUE(process.waitForStarted());
    }
    // Collects the program's output until it holds text (for ms at most), or for all of ms
    // without a text: QProcess reads only while somebody waits on it.
    bool collect(QString* out, const QString& text, int ms = 10000)
    {
        QElapsedTimer t;
        t.start();
        while ((text.isEmpty() || !out->contains(text)) && t.elapsed() < ms && process.state() == QProcess::Running) {
            process.waitForReadyRead(50);
            *out += QString::fromLocal8Bit(process.readAllStandardOutput());
        }
        *out += QString::fromLocal8Bit(process.readAllStandardOutput());
        return out->contains(text);
    }
    // Runs the program to its end, which must be an exit, not a crash or an abort; its error output.
    QString runToExit(const QStringList& args = {"-v"})
    {
        start(args);
        EXPECT_TRUE(process.waitForFinished(15000));
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit) << "no crash, no abort";
        return QString::fromLocal8Bit(process.readAllStandardError());
    }
    // Puts text in place of a line of a file of config/, or after its last line when at is -1;
    // the number of that line, as editors count.
    int editConfig(const QString& name, int at, const QByteArray& text)
    {
        QFile file(dir.filePath("config/" + name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        QList<QByteArray> lines = file.readAll().split('\n');
        file.close();
        if (at < 0)
            at = int(lines.size()) - 1, lines.append("");
        lines[at] = text;
        EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(lines.join('\n'));
        return at + 1;
    }
};

} // namespace

TEST_F(Program, WithoutTheMenuAndWithoutVerboseItSaysSoAndEndsCleanly)
{
    runToExit({});
    const QString out = QString::fromLocal8Bit(process.readAllStandardOutput());
    EXPECT_EQ(process.exitCode(), 0);
    // The line says so as date time: Type: text (file:line, function).
    const QRegularExpression line(
        R"(^\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d: Debug: velora-menu is not running\. Run with -v flag or run with velora-menu\. \(.+blobfacade\.cpp:\d+, .*start.*\)$)",
        QRegularExpression::MultilineOption);
    EXPECT_TRUE(line.match(out).hasMatch()) << qPrintable(out);
}

TEST_F(Program, VerboseFlagCountsOnlyInFirstPlace)
{
    runToExit({"--other", "-v"});
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_TRUE(QString::fromLocal8Bit(process.readAllStandardOutput()).contains("velora-menu is not running"));

    start({" -v "});
    QString out;
    EXPECT_TRUE(collect(&out, "Verbose Flag found")) << qPrintable(out);
    collect(&out, {}, 1500);
    EXPECT_EQ(process.state(), QProcess::Running) << "with -v it runs without the menu";
}

TEST_F(Program, WaitsForTheDeviceWhileTheMenuHoldsItsGuardAndEndsWhenTheMenuGoes)
{
    RunGuard menu("velora");
    ASSERT_TRUE(menu.tryToRun());
    start({});
    QString out;
    // No camera here: it waits, saying so once a second.
    ASSERT_TRUE(collect(&out, "No device connected.")) << qPrintable(out);
    collect(&out, {}, 1500);
    ASSERT_EQ(process.state(), QProcess::Running) << qPrintable(out);
    EXPECT_GE(out.count("No device connected."), 2) << qPrintable(out);
    EXPECT_FALSE(out.contains("velora-menu is not running"));

    menu.release();
    ASSERT_TRUE(process.waitForFinished(5000));
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().constData();
}

TEST_F(Program, ABlankSettingEndsTheProgramNamingFileAndLine)
{
    const int line = editConfig("velora.conf", 5, "stylusThreshold=    ");
    const QString err = runToExit();
    EXPECT_NE(process.exitCode(), 0);
    EXPECT_TRUE(err.contains(dir.filePath("config/velora.conf") + QString(":%1:").arg(line))) << qPrintable(err);
}

// The device list is read while the program waits for the camera, after the settings:
// a bad key still ends it once, with status 1, naming the file and line.
TEST_F(Program, AnUnknownKeyInTheDeviceListEndsTheProgramWithStatusOne)
{
    const int line = editConfig("cyusb.conf", -1, "Devices 3");
    const QString err = runToExit();
    EXPECT_EQ(process.exitCode(), 1);
    EXPECT_TRUE(err.contains(QString("config/cyusb.conf:%1:").arg(line))) << qPrintable(err);
    EXPECT_TRUE(err.contains("Devices")) << qPrintable(err);
}

// The register list is read when the sensor starts, on the emulated device here, long after
// the settings: a register line without a value ends the program the same way.
TEST_F(Program, ARegisterLineWithoutValueEndsTheProgramOnceTheSensorStarts)
{
    const int line = editConfig("sensor.conf", -1, "REG= 000B");
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    const QString emulator = QFileInfo(VELORA_BINARY).dir().filePath("libvelora_sensor_emulator.so");
    ASSERT_TRUE(QFile::exists(emulator));
    env.insert("LD_PRELOAD", emulator);
    // Under AddressSanitizer its runtime is linked into the program, not preloaded.
    env.insert("ASAN_OPTIONS", env.value("ASAN_OPTIONS") + ":verify_asan_link_order=0");
    env.remove("VELORA_EMU_SCENE");
    process.setProcessEnvironment(env);

    const QString err = runToExit();
    const QString out = QString::fromLocal8Bit(process.readAllStandardOutput());
    EXPECT_EQ(process.exitCode(), 1);
    EXPECT_TRUE(out.contains("Sensor connect done")) << "the sensor was reached first\n" << qPrintable(out);
    EXPECT_TRUE(err.contains(QString("config/sensor.conf:%1:").arg(line))) << qPrintable(err);
}
