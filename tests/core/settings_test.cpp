#include "configfileerror.h"
#include "globalsettings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <climits>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace {

using ::testing::DoubleEq;
using ::testing::FieldsAre;
using ::testing::StrEq;

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
    std::vector<std::string> lines = factoryLines();

    // The file of these lines, loaded.
    std::unique_ptr<GS> load(bool finalLineFeed = true)
    {
        std::string s;
        for (const std::string& line : lines)
            s += line + '\n';
        if (!finalLineFeed && !s.empty())
            s.pop_back();
        std::ofstream(path.toStdString(), std::ios::binary) << s;
        return std::unique_ptr<GS>(GS::load(path));
    }
};

} // namespace

TEST_F(SettingsFile, FactoryFileHas121LinesAndLoadsEveryMember)
{
    ASSERT_EQ(lines.size(), 121u);
    auto gs = load();
    ASSERT_TRUE(gs);
    EXPECT_THAT(std::tuple(gs->cyusbConfPath, gs->acConfPath, gs->intrinsicPath, gs->language),
                FieldsAre("config/cyusb.conf", StrEq("config/ac.conf"), StrEq("config/intrinsic.xml"), StrEq("en")));
    EXPECT_THAT(std::tuple(gs->sensorWidth, gs->sensorHeight, gs->frameSize, gs->stylusThreshold, gs->windowX,
                           gs->windowWidth, gs->windowHeight, gs->binningX, gs->binningY, gs->regionalBelowCountLevel),
                FieldsAre(752, 480, 752 * 480, 230, 0, 752, 480, 1, 1, -5));
    EXPECT_THAT(std::tuple(gs->autoWindow, gs->tableTopAc, gs->scanBoxLargeCheck), FieldsAre(true, false, false));
    EXPECT_THAT(std::tuple(gs->extraCorrectionFactor, gs->scanBoxShape2Limit, gs->frameCentre.x, gs->frameCentre.y,
                           gs->frameCentreDistance, gs->blankingFactorStylusCopy),
                FieldsAre(DoubleEq(1.0055), DoubleEq(2.2), DoubleEq(376), DoubleEq(240),
                          DoubleEq(EVector(376, 240).length()), DoubleEq(gs->blankingFactorStylus)));
}

TEST_F(SettingsFile, ValuesAreTakenByLineNumberWithTheirConversions)
{
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
    auto gs = load();
    ASSERT_TRUE(gs);
    // The width's value after the first '=' is ' sign=640'.
    EXPECT_THAT(std::tuple(gs->sensorWidth, gs->sensorHeight, gs->frameSize, gs->stylusThreshold, gs->inputMode.load(),
                           gs->keepFrames),
                FieldsAre(0, 400, 0, 0, 1, 0));
    EXPECT_THAT(std::tuple(gs->unusedLine9, gs->acDebug, gs->autoWindow), FieldsAre(true, false, true));
    EXPECT_DOUBLE_EQ(gs->mcMarginX, 0);
    EXPECT_THAT(std::tuple(gs->language, gs->cyusbConfPath), FieldsAre(StrEq("de"), "my/cyusb.conf"));

    lines[2] = "width=640";
    lines[49] = "inputMode=0.0";
    gs = load();
    EXPECT_THAT(std::tuple(gs->sensorWidth, gs->frameSize, gs->inputMode.load()), FieldsAre(640, 640 * 400, 0));
}

// Numbers beyond an int stop at the ends of its range, as does the frame size made of them.
TEST_F(SettingsFile, WholeNumbersBeyondTheRangeOfAnIntStopAtItsEnds)
{
    lines[2] = "width=5e30";
    lines[3] = "height=-1e300";
    lines[5] = "stylusThreshold=nan";
    auto gs = load();
    ASSERT_TRUE(gs);
    EXPECT_THAT(std::tuple(gs->sensorWidth, gs->sensorHeight, gs->stylusThreshold, gs->frameSize),
                FieldsAre(INT_MAX, INT_MIN, 0, INT_MIN));

    lines[2] = "width=70000";
    lines[3] = "height=70000";
    gs = load();
    EXPECT_EQ(gs->frameSize, INT_MAX);
}

TEST_F(SettingsFile, AShortFileZeroesTheFirstMemberPastItsEndWhenItEndsWithALineFeed)
{
    lines.resize(4);
    // Line 4 is the empty line after the last line feed; later members keep the constructor's values.
    auto gs = load();
    EXPECT_THAT(std::tuple(gs->sensorHeight, gs->stylusExposure, gs->stylusThreshold), FieldsAre(480, 0, 230));

    gs = load(false);
    EXPECT_EQ(gs->stylusExposure, 80);
}

TEST_F(SettingsFile, LinesPast120AreIgnoredLine33SetsNothingAndNumbersAreReadInTheCLocale)
{
    lines[6] = "bezier=0.75";
    lines[33] = "ignored=12345";
    lines.push_back("extra=1");
    lines.push_back("more=2");
    setlocale(LC_ALL, "de_DE.UTF-8"); // may not exist; load sets "C" itself either way
    auto gs = load();
    ASSERT_TRUE(gs);
    EXPECT_THAT(std::tuple(gs->scanBoxLargeCheck, gs->disturbanceCheckMs, gs->bezierFactor),
                FieldsAre(false, 2000, DoubleEq(0.75)));
}

TEST_F(SettingsFile, PerUserPathsAreMadeUnderDocumentsVelora)
{
    auto gs = load();
    const QString docs = QStandardPaths::locate(QStandardPaths::DocumentsLocation, QString(),
                                                QStandardPaths::LocateDirectory);
    ASSERT_FALSE(docs.isEmpty()) << "the isolated home has a Documents folder";
    const std::string base = (docs + "Velora/").toStdString();
    EXPECT_THAT(std::tuple(gs->statusFilePath, gs->stylusCalibrationPath, gs->fingerCalibrationPath, gs->mcCachePath,
                           gs->userSettingsPath, gs->debugDir, gs->commandFilePath.toStdString(),
                           gs->answerFilePath.toStdString()),
                FieldsAre(base + "pensettings.ini", base + "stylus-velora.ini", base + "finger-velora.ini",
                          base + "mcCache", base + "user.ini", base + "debug", base + "fifo1", base + "refifo"));
}

TEST_F(SettingsFile, AMissingFileGivesNullAndTheDefaultsStayUnderVarVelora)
{
    EXPECT_EQ(GS::load(dir.filePath("absent.conf")), nullptr);
    GS defaults;
    EXPECT_THAT(std::tuple(defaults.userSettingsPath, defaults.guardKey.toStdString(),
                           defaults.updaterKey.toStdString(), defaults.frameSize, defaults.boxStride,
                           defaults.commandFilePath.isEmpty()),
                FieldsAre("/var/velora/user.ini", "velora", "velora-updater", 752 * 480, 4, true));
}

TEST_F(SettingsFile, ABlankValueIsRejectedWithTheFileAndTheLine)
{
    lines[41] = "boxParameter=   ";
    try {
        load();
        FAIL() << "a value of blanks only must not load";
    } catch (const ConfigFileError& e) {
        // The line as editors count them.
        EXPECT_THAT(std::tuple(e.file(), e.line()), FieldsAre(path.toStdString(), 42));
        EXPECT_NE(std::string(e.what()).find(path.toStdString() + ":42:"), std::string::npos) << e.what();
        EXPECT_NE(e.exitStatus(), 0);
    }
}

// A user.ini beside the factory file, read into settings of their own.
class UserSettings : public ::testing::Test {
protected:
    QTemporaryDir dir;
    const std::string path = dir.filePath("user.ini").toStdString();
    GS gs;

    void load(const std::string& content)
    {
        std::ofstream(path) << content;
        gs.userSettingsPath = path;
        gs.loadUserSettings();
    }
};

TEST_F(UserSettings, AreElevenBareValuesReadAndWrittenBackAlike)
{
    const std::string content = "1\n3\n0\n1\n2\n0.98\n1.02\n-3.5\n4.25\n0.5\n1.5";
    load(content);
    EXPECT_THAT(std::tuple(gs.inputMode.load(), gs.profile, gs.autostart, gs.pointerMode.load(), gs.performanceLevel,
                           gs.offsetLeft.load(), gs.offsetRight.load(), gs.offsetC.load(), gs.offsetD.load(),
                           gs.offsetTop.load(), gs.offsetBottom.load()),
                FieldsAre(1, 3, false, 1, 2, DoubleEq(0.98), DoubleEq(1.02), DoubleEq(-3.5), DoubleEq(4.25),
                          DoubleEq(0.5), DoubleEq(1.5)));
    gs.userSettingsPath = path + ".saved";
    gs.saveUserSettings();
    std::ifstream saved(gs.userSettingsPath);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(saved), {}), content);
}

TEST_F(UserSettings, UnparsableLinesGiveZeroAndTheUserFileWinsOverTheFactoryMode)
{
    gs.inputMode = 1; // as if line 49 of the factory file said stylus
    load("0\nx\n7\n1\n1\n1.0\n1.0\n0\n0\n1.0\n1.0\nextra\n");
    EXPECT_THAT(std::tuple(gs.inputMode.load(), gs.profile, gs.autostart), FieldsAre(0, 0, true));
}

TEST_F(UserSettings, AMissingFileLowersThePerformanceLevelOnSmallMachinesOnly)
{
    gs.userSettingsPath = path;
    gs.loadUserSettings();
    EXPECT_EQ(gs.performanceLevel, QThread::idealThreadCount() < 4 ? 0 : 2);

    gs.userSettingsPath = dir.filePath("no/such/dir/user.ini").toStdString();
    gs.saveUserSettings(); // silently does nothing
    EXPECT_FALSE(QFile::exists(QString::fromStdString(gs.userSettingsPath)));
}

TEST(SettingsSingleton, ReadsTheFactoryFileBesideTheProgramAndTracksTheScreen)
{
    GS* gs = GS::instance();
    EXPECT_EQ(gs, GS::instance());
    EXPECT_EQ(gs->sensorWidth, 752);
    EXPECT_FALSE(gs->commandFilePath.isEmpty()) << "paths exist only when the file was found";
    gs->onResolutionChanged(1280, 800);
    EXPECT_THAT(std::tuple(gs->screenWidth.load(), gs->screenHeight.load()), FieldsAre(1280, 800));
}
