#include "configfileerror.h"
#include "globalsettings.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<std::string> factoryLines()
{
    std::ifstream in(std::string(VELORA_SOURCE_DIR) + "/config/velora.conf");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

class SettingsFile : public ::testing::Test {
protected:
    QTemporaryDir dir;
    QString path = dir.filePath("velora.conf");

    void write(const std::string& content)
    {
        std::ofstream(path.toStdString(), std::ios::binary) << content;
    }
    void writeLines(const std::vector<std::string>& lines, bool finalLineFeed)
    {
        std::string s;
        for (size_t i = 0; i < lines.size(); ++i) {
            s += lines[i];
            if (i + 1 < lines.size() || finalLineFeed)
                s += '\n';
        }
        write(s);
    }
    std::unique_ptr<GS> load()
    {
        return std::unique_ptr<GS>(GS::load(path));
    }
};

} // namespace

TEST_F(SettingsFile, FactoryFileHas121LinesAndLoadsEveryMember)
{
    auto lines = factoryLines();
    ASSERT_EQ(lines.size(), 121u);
    writeLines(lines, true);
    auto gs = load();
    ASSERT_TRUE(gs);
    EXPECT_EQ(gs->cyusbConfPath, "config/cyusb.conf");
    EXPECT_EQ(gs->sensorWidth, 752);
    EXPECT_EQ(gs->sensorHeight, 480);
    EXPECT_EQ(gs->frameSize, 752 * 480);
    EXPECT_EQ(gs->stylusThreshold, 230);
    EXPECT_DOUBLE_EQ(gs->extraCorrectionFactor, 1.0055);
    EXPECT_STREQ(gs->acConfPath, "config/ac.conf");
    EXPECT_STREQ(gs->intrinsicPath, "config/intrinsic.xml");
    EXPECT_STREQ(gs->language, "en");
    EXPECT_EQ(gs->windowX, 0);
    EXPECT_EQ(gs->windowWidth, 752);
    EXPECT_EQ(gs->windowHeight, 480);
    EXPECT_TRUE(gs->autoWindow);
    EXPECT_EQ(gs->binningX, 1);
    EXPECT_EQ(gs->binningY, 1);
    EXPECT_FALSE(gs->tableTopAc);
    EXPECT_EQ(gs->regionalBelowCountLevel, -5);
    EXPECT_DOUBLE_EQ(gs->scanBoxShape2Limit, 2.2);
    EXPECT_FALSE(gs->scanBoxLargeCheck);
    EXPECT_DOUBLE_EQ(gs->frameCentre.x, 376);
    EXPECT_DOUBLE_EQ(gs->frameCentre.y, 240);
    EXPECT_DOUBLE_EQ(gs->frameCentreDistance, EVector(376, 240).length());
    EXPECT_DOUBLE_EQ(gs->blankingFactorStylusCopy, gs->blankingFactorStylus);
}

TEST_F(SettingsFile, ValuesAreTakenByLineNumberWithTheirConversions)
{
    auto lines = factoryLines();
    lines[2] = "a label holding = sign=640";      // split at the first '='
    lines[3] = "rows=   400.9  ";                 // trimmed, truncated
    lines[5] = "no equals sign 200";              // whole line is the value: strtod gives 0
    lines[9] = "nonZeroBool=2";                   // bool, non-zero
    lines[35] = "acDebug=2";                      // plain bool: only exactly 1 is true
    lines[57] = "autoWindow=1.0";
    lines[49] = "inputMode=2";                    // any non-zero becomes 1
    lines[10] = "keepFrames=";                    // empty value is 0
    lines[24] = "marginX=abc";                    // text in a numeric line is 0
    lines[52] = "language=de";
    lines[0] = "device list=  my/cyusb.conf";
    writeLines(lines, true);
    auto gs = load();
    ASSERT_TRUE(gs);
    EXPECT_EQ(gs->sensorWidth, 0) << "the value after the first '=' is ' sign=640'";
    EXPECT_EQ(gs->sensorHeight, 400);
    EXPECT_EQ(gs->frameSize, 0);
    EXPECT_EQ(gs->stylusThreshold, 0);
    EXPECT_TRUE(gs->unusedLine9);
    EXPECT_FALSE(gs->acDebug);
    EXPECT_TRUE(gs->autoWindow);
    EXPECT_EQ(gs->inputMode, 1);
    EXPECT_EQ(gs->keepFrames, 0);
    EXPECT_DOUBLE_EQ(gs->mcMarginX, 0);
    EXPECT_STREQ(gs->language, "de");
    EXPECT_EQ(gs->cyusbConfPath, "my/cyusb.conf");

    lines[2] = "width=640";
    lines[49] = "inputMode=0.0";
    writeLines(lines, true);
    gs = load();
    EXPECT_EQ(gs->sensorWidth, 640);
    EXPECT_EQ(gs->frameSize, 640 * 400);
    EXPECT_EQ(gs->inputMode, 0);
}

// Numbers beyond an int stop at the ends of its range, as does the frame size made of them.
TEST_F(SettingsFile, WholeNumbersBeyondTheRangeOfAnIntStopAtItsEnds)
{
    auto lines = factoryLines();
    lines[2] = "width=5e30";
    lines[3] = "height=-1e300";
    lines[5] = "stylusThreshold=nan";
    writeLines(lines, true);
    auto gs = load();
    ASSERT_TRUE(gs);
    EXPECT_EQ(gs->sensorWidth, std::numeric_limits<int>::max());
    EXPECT_EQ(gs->sensorHeight, std::numeric_limits<int>::min());
    EXPECT_EQ(gs->stylusThreshold, 0);
    EXPECT_EQ(gs->frameSize, std::numeric_limits<int>::min());

    lines[2] = "width=70000";
    lines[3] = "height=70000";
    writeLines(lines, true);
    gs = load();
    EXPECT_EQ(gs->frameSize, std::numeric_limits<int>::max());
}

TEST_F(SettingsFile, NumbersAreReadInTheCLocaleWhateverTheProcessLocale)
{
    auto lines = factoryLines();
    lines[6] = "bezier=0.75";
    writeLines(lines, true);
    setlocale(LC_ALL, "de_DE.UTF-8"); // may not exist; load sets "C" itself either way
    auto gs = load();
    EXPECT_DOUBLE_EQ(gs->bezierFactor, 0.75);
}

TEST_F(SettingsFile, AShortFileZeroesTheFirstMemberPastItsEndWhenItEndsWithALineFeed)
{
    auto lines = factoryLines();
    lines.resize(4);
    writeLines(lines, true);
    auto gs = load();
    EXPECT_EQ(gs->sensorHeight, 480);
    EXPECT_EQ(gs->stylusExposure, 0) << "line 4 is the empty line after the last line feed";
    EXPECT_EQ(gs->stylusThreshold, 230) << "later members keep the constructor's values";

    writeLines(lines, false);
    gs = load();
    EXPECT_EQ(gs->stylusExposure, 80);
}

TEST_F(SettingsFile, LinesPast120AreIgnoredAndLine33SetsNothing)
{
    auto lines = factoryLines();
    lines[33] = "ignored=12345";
    lines.push_back("extra=1");
    lines.push_back("more=2");
    writeLines(lines, true);
    auto gs = load();
    ASSERT_TRUE(gs);
    EXPECT_FALSE(gs->scanBoxLargeCheck);
    EXPECT_EQ(gs->disturbanceCheckMs, 2000);
}

TEST_F(SettingsFile, PerUserPathsAreMadeUnderDocumentsVelora)
{
    writeLines(factoryLines(), true);
    auto gs = load();
    const QString docs = QStandardPaths::locate(QStandardPaths::DocumentsLocation, QString(),
                                                QStandardPaths::LocateDirectory);
    ASSERT_FALSE(docs.isEmpty()) << "the isolated home has a Documents folder";
    const std::string base = (docs + "Velora/").toStdString();
    EXPECT_EQ(gs->statusFilePath, base + "pensettings.ini");
    EXPECT_EQ(gs->stylusCalibrationPath, base + "stylus-velora.ini");
    EXPECT_EQ(gs->fingerCalibrationPath, base + "finger-velora.ini");
    EXPECT_EQ(gs->mcCachePath, base + "mcCache");
    EXPECT_EQ(gs->userSettingsPath, base + "user.ini");
    EXPECT_EQ(gs->debugDir, base + "debug");
    EXPECT_EQ(gs->commandFilePath.toStdString(), base + "fifo1");
    EXPECT_EQ(gs->answerFilePath.toStdString(), base + "refifo");
}

TEST_F(SettingsFile, AMissingFileGivesNullAndTheDefaultsStayUnderVarVelora)
{
    EXPECT_EQ(GS::load(dir.filePath("absent.conf")), nullptr);
    GS defaults;
    EXPECT_EQ(defaults.userSettingsPath, "/var/velora/user.ini");
    EXPECT_TRUE(defaults.commandFilePath.isEmpty());
    EXPECT_EQ(defaults.guardKey, "velora");
    EXPECT_EQ(defaults.updaterKey, "velora-updater");
    EXPECT_EQ(defaults.frameSize, 752 * 480);
    EXPECT_EQ(defaults.boxStride, 4);
}

TEST_F(SettingsFile, ABlankValueIsRejectedWithTheFileAndTheLine)
{
    auto lines = factoryLines();
    lines[41] = "boxParameter=   ";
    writeLines(lines, true);
    try {
        GS::load(path);
        FAIL() << "a value of blanks only must not load";
    } catch (const ConfigFileError& e) {
        EXPECT_EQ(e.file(), path.toStdString());
        EXPECT_EQ(e.line(), 42) << "reported as editors count lines";
        EXPECT_NE(std::string(e.what()).find(path.toStdString() + ":42:"), std::string::npos) << e.what();
        EXPECT_NE(e.exitStatus(), 0);
    }
}

TEST(UserSettings, AreWrittenAsElevenBareValuesAndReadBack)
{
    QTemporaryDir dir;
    GS gs;
    gs.userSettingsPath = dir.filePath("user.ini").toStdString();
    gs.inputMode = 1;
    gs.profile = 3;
    gs.autostart = false;
    gs.pointerMode = 1;
    gs.performanceLevel = 2;
    gs.offsetLeft = 0.98;
    gs.offsetRight = 1.02;
    gs.offsetC = -3.5;
    gs.offsetD = 4.25;
    gs.offsetTop = 0.5;
    gs.offsetBottom = 1.5;
    gs.saveUserSettings();

    QFile file(QString::fromStdString(gs.userSettingsPath));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray content = file.readAll();
    EXPECT_EQ(content, QByteArray("1\n3\n0\n1\n2\n0.98\n1.02\n-3.5\n4.25\n0.5\n1.5"));

    GS other;
    other.userSettingsPath = gs.userSettingsPath;
    other.loadUserSettings();
    EXPECT_EQ(other.inputMode, 1);
    EXPECT_EQ(other.profile, 3);
    EXPECT_FALSE(other.autostart);
    EXPECT_EQ(other.pointerMode, 1);
    EXPECT_EQ(other.performanceLevel, 2);
    EXPECT_DOUBLE_EQ(other.offsetC, -3.5);
    EXPECT_DOUBLE_EQ(other.offsetBottom, 1.5);
}

TEST(UserSettings, UnparsableLinesGiveZeroAndTheUserFileWinsOverTheFactoryMode)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("user.ini");
    std::ofstream(path.toStdString()) << "0\nx\n7\n1\n1\n1.0\n1.0\n0\n0\n1.0\n1.0\nextra\n";
    GS gs;
    gs.inputMode = 1; // as if line 49 of the factory file said stylus
    gs.userSettingsPath = path.toStdString();
    gs.loadUserSettings();
    EXPECT_EQ(gs.inputMode, 0);
    EXPECT_EQ(gs.profile, 0);
    EXPECT_TRUE(gs.autostart);
}

TEST(UserSettings, AMissingFileLowersThePerformanceLevelOnSmallMachinesOnly)
{
    QTemporaryDir dir;
    GS gs;
    gs.userSettingsPath = dir.filePath("absent.ini").toStdString();
    gs.loadUserSettings();
    EXPECT_EQ(gs.performanceLevel, QThread::idealThreadCount() < 4 ? 0 : 2);

    GS unwritable;
    unwritable.userSettingsPath = dir.filePath("no/such/dir/user.ini").toStdString();
    unwritable.saveUserSettings(); // silently does nothing
    EXPECT_FALSE(QFile::exists(QString::fromStdString(unwritable.userSettingsPath)));
}

TEST(SettingsSingleton, ReadsTheFactoryFileBesideTheProgramAndTracksTheScreen)
{
    GS* gs = GS::instance();
    EXPECT_EQ(gs, GS::instance());
    EXPECT_EQ(gs->sensorWidth, 752);
    EXPECT_FALSE(gs->commandFilePath.isEmpty()) << "paths exist only when the file was found";
    gs->onResolutionChanged(1280, 800);
    EXPECT_EQ(gs->screenWidth, 1280);
    EXPECT_EQ(gs->screenHeight, 800);
}
