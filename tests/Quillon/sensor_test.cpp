#include "fakelibusb.h"

#include "configfileerror.h"
#include "cyusb.h"
#include "cyusbconfig.h"
#include "globalsettings.h"
#include "sensor.h"

#include <gmock/gmock.h>

#include <QDir>

#include <fcntl.h>

#include <fstream>
#include <memory>
#include <string>
#include <tuple>

struct RegisterWrite {
    int reg;
    int value;
    bool operator==(const RegisterWrite&) const = default;
};

// The register writes sent; each must come as an identical pair, and one of each pair is returned.
static std::vector<RegisterWrite> pairedWrites()
{
    std::vector<RegisterWrite> all, once;
    for (const auto& r : fakeusb::requests()) {
        if (r.request != 0xFE)
            continue;
        EXPECT_EQ(std::tuple(r.requestType, r.value, r.index, r.data.size()), std::tuple(0x40, 0, 0, 3u));
        all.push_back({r.data[0], r.data[1] << 8 | r.data[2]});
    }
    EXPECT_EQ(all.size() % 2, 0u);
    for (size_t i = 0; i + 1 < all.size(); i += 2) {
        EXPECT_EQ(all[i], all[i + 1]) << "write " << i;
        once.push_back(all[i]);
    }
    return once;
}

static std::string tempFile(const std::string& name, const std::string& content)
{
    const std::string path = QDir::tempPath().toStdString() + "/" + name;
    std::ofstream(path) << content;
    return path;
}

class SensorControl : public ::testing::Test {
protected:
    void SetUp() override
    {
        conf = tempFile("cyusb.conf", "<VPD>\n1209 7e1a VeloraSensor\n</VPD>\n");
        ccf = tempFile("sensor.conf", "");
        GS* gs = GS::instance();
        gs->inputMode = 0;
        gs->blankingFactorFinger = 3.5;
        sensor = std::make_unique<Sensor>(conf.c_str(), ccf.c_str());
        ASSERT_EQ(sensor->getSensorCount(), 1);
        ASSERT_EQ(sensor->connect(0), 1);
        ASSERT_EQ(sensor->endpoint, 0x82) << "the bulk-in endpoint";
        // The geometry of start, without the capture threads.
        sensor->sensorWidth = sensor->windowWidth = 752;
        sensor->sensorHeight = sensor->windowHeight = 480;
        sensor->fullFrameBytes = 752 * 480;
        fakeusb::clearRequests();
    }

    // Stands in for both capture threads answering the handshake.
    void threadsIdle()
    {
        sensor->reconfiguring = true;
        sensor->imageThreadIdle = true;
        sensor->usbThreadIdle = true;
    }

    std::string conf;
    std::string ccf;
    std::unique_ptr<Sensor> sensor;
};

// The values written are fixed whatever is asked (the capture pipeline's test shows it for
// the register file); the regulator's calls still reach the device.
TEST_F(SensorControl, BlankingSyncWritesTheFixedValues)
{
    sensor->setBlankingSync(999);
    EXPECT_EQ(pairedWrites(), (std::vector<RegisterWrite>{{5, 999}}));
    fakeusb::clearRequests();
    sensor->setBlankingSync(400);
    sensor->setBlankingSync(1500);
    EXPECT_EQ(pairedWrites(), (std::vector<RegisterWrite>{{5, 999}, {6, 47}, {5, 999}, {6, 47}}));
    // What the regulator reads back for its next step.
    EXPECT_EQ((std::tuple<int, int>(sensor->sentHorizontalBlanking, sensor->sentVerticalBlanking)),
              std::tuple(999, 47));
}

TEST_F(SensorControl, FilterMovesAreOutputPulses)
{
    sensor->switchFilter(true);
    sensor->switchFilter(false);
    std::vector<std::pair<int, int>> pulses;
    for (const auto& r : fakeusb::requests()) {
        ASSERT_EQ(r.request, 0xFC);
        ASSERT_EQ(r.data.size(), 1u); // before the USB thread runs
        pulses.emplace_back(r.value, r.data[0]);
    }
    const std::vector<std::pair<int, int>> expected{{128, 1}, {128, 1}, {128, 0}, {128, 0},
                                                    {64, 1},  {64, 1},  {64, 0},  {64, 0}};
    EXPECT_EQ(pulses, expected);
}

TEST_F(SensorControl, WindowIsClampedToMinimaAndFrame)
{
    GS::instance()->blankingFactorFinger = 0.0;
    sensor->setMinimumWindow(100, 100);
    threadsIdle();
    sensor->setWindow(-5, -5, 3, 3);
    EXPECT_EQ(std::tuple(sensor->windowX, sensor->windowY, sensor->windowWidth, sensor->windowHeight),
              std::tuple(0, 0, 100, 100));
    EXPECT_FALSE(sensor->reconfiguring);
    // Blanking by the formula: 209558880 / (157 * 400) - 100.
    EXPECT_EQ((std::tuple<int, int, int>(sensor->frameBytes, sensor->transferBytes, sensor->horizontalBlanking)),
              std::tuple(10000, 10240, 3236));
    EXPECT_EQ(pairedWrites(), (std::vector<RegisterWrite>{{5, 999}, {6, 47}, {1, 1}, {2, 4}, {3, 100}, {4, 100}}));

    threadsIdle();
    GS::instance()->blankingFactorFinger = 3.5;
    sensor->setWindow(745, 0, 100, 100);
    EXPECT_EQ((std::tuple<int, int, int>(sensor->windowX, sensor->frameOffset, sensor->horizontalBlanking)),
              std::tuple(652, 652, static_cast<int>(3.5 * 652)));

    threadsIdle();
    sensor->setWindow(10, 470, 900, 40);
    EXPECT_EQ(
        (std::tuple<int, int, int, int>(sensor->windowWidth, sensor->windowX, sensor->windowY, sensor->frameOffset)),
        std::tuple(752, 0, 440, 752 * 440));
}

TEST_F(SensorControl, BlankingRuleFollowsTheRoundedFactor)
{
    struct Case {
        double factor;
        int width;
        int height;
        int blanking;
    };
    const Case cases[] = {
        {0.4, 752, 480, static_cast<int>(209558880.0 / (537.0 * 400.0) - 752)}, // rounds to 0: formula
        {3.5, 400, 480, static_cast<int>(3.5 * 352)},                          // rounds to 4, multiplies by 3.5
        {-1.0, 100, 100, static_cast<int>((3236 - 999) / 2.4 + 999)},          // formula, damped above 999
        {-1.0, 752, 480, 223},                                                 // formula below 999 stays
        {-2.0, 752, 480, 5000},
        {-3.0, 752, 480, 1000},
    };
    GS::instance()->inputMode = 1;
    for (const Case& c : cases) {
        GS::instance()->blankingFactorStylus = c.factor;
        threadsIdle();
        sensor->setWindow(0, 0, c.width, c.height);
        EXPECT_EQ(sensor->horizontalBlanking, c.blanking) << "factor " << c.factor;
    }
    // The stylus factor was used, not the finger one.
    EXPECT_EQ(GS::instance()->blankingFactorFinger, 3.5);
}

TEST_F(SensorControl, BinningIsClampedAndShrinksTheTransfer)
{
    threadsIdle();
    sensor->setBinning(3, 0);
    EXPECT_EQ(std::tuple(sensor->binningY, sensor->binningX), std::tuple(4, 1));
    EXPECT_EQ(pairedWrites().at(0), (RegisterWrite{13, 2}));
    EXPECT_EQ((std::tuple<int, int, int>(sensor->rowBytes, sensor->rowCount, sensor->frameBytes)),
              std::tuple(752, 120, 752 * 120));
    EXPECT_EQ((std::tuple<int, bool>(sensor->transferBytes % 512, sensor->reconfiguring)), std::tuple(0, false));

    fakeusb::clearRequests();
    threadsIdle();
    sensor->setBinning(2, 9);
    EXPECT_EQ(pairedWrites().at(0), (RegisterWrite{13, 1 | 2 * 4}));
}

TEST_F(SensorControl, RegisterListIsWrittenInFileOrderAndAShortLineEndsTheRunWithItsPlace)
{
    const std::string path = tempFile("regs.conf", "# header\nREG= 000B, 120\nREGISTER 1\nreg= 0003, 100\n"
                                                   "REG= 0005, 061\nREG= 001B  002 tail\nREG= zz  , abc\n");
    Sensor s(conf.c_str(), path.c_str());
    s.handle = sensor->handle;
    s.init();
    EXPECT_EQ(pairedWrites(), (std::vector<RegisterWrite>{{11, 120}, {5, 999}, {27, 2}, {0, 0}}));

    tempFile("regs.conf", "REG= 000B, 120\n\nREG= 000B\n");
    EXPECT_THAT([&] { s.init(); }, testing::Throws<ConfigFileError>(testing::AllOf(
                                       testing::Property(&ConfigFileError::line, 3),
                                       testing::Property(&ConfigFileError::file, path))));
    // A missing file is only logged.
    Sensor none(conf.c_str(), "/nonexistent/sensor.conf");
    EXPECT_NO_THROW(none.init());
}

TEST(SensorDevice, OnlyOurDeviceIsCountedEvenWhenPluggedInLater)
{
    const std::string conf = tempFile("late.conf", "<VPD>\n1209 7e1a VeloraSensor\n</VPD>\n");
    cyusb_close(); // the layer's table outlives every Sensor
    fakeusb::device().present = 0;
    Sensor s(conf.c_str(), "/nonexistent");
    EXPECT_EQ((std::tuple{s.getSensorCount(), s.isConnected()}), std::tuple(0, false));
    fakeusb::device().present = 1;
    EXPECT_EQ(s.getSensorCount(), 1);
    EXPECT_EQ(cyusb_gethandle(0), nullptr);
    EXPECT_EQ(s.connect(0), 1);
    EXPECT_NE(s.handle, nullptr);

    // Other devices are not counted.
    // The Sensor keeps the path's pointer: the string must outlive it.
    const std::string otherConf = tempFile("other.conf", "<VPD>\n04b4 00f3 Other\n</VPD>\n");
    Sensor other(otherConf.c_str(), "/nonexistent");
    EXPECT_EQ(other.getSensorCount(), 0);
}

// The USB layer's configuration file.
static CyusbConfig readConfig(const std::string& content)
{
    // Not the sensors' cyusb.conf, which their tests write afresh.
    const std::string path = tempFile("read-cyusb.conf", content);
    CyusbConfig config;
    config.read(path.c_str(), ::open(path.c_str(), O_RDONLY));
    return config;
}

static auto failsOnLine(int line)
{
    return testing::Throws<ConfigFileError>(testing::Property(&ConfigFileError::line, line));
}

TEST(CyusbConfig, ReadsKeysAndDevicesSkippingCommentsAndBlankLines)
{
    const CyusbConfig c = readConfig("# comment\n\n  \t \nLogFile /tmp/a.log extra\nPIDFile=/run/x.pid\n<VPD>\n"
                                     "# inside\n04b4\t00F3\tBootLoader\n\n1209 7e1a VeloraSensor trailing\n</VPD>\n");
    EXPECT_STREQ(c.logfile, "/tmp/a.log");
    EXPECT_STREQ(c.pidfile, "/run/x.pid");
    ASSERT_EQ(c.maxdevices, 2);
    auto device = [&](int i) { return std::tuple(c.vpd[i].vid, c.vpd[i].pid, std::string(c.vpd[i].desc)); };
    EXPECT_EQ(device(0), std::tuple(0x04B4, 0x00F3, "BootLoader"));
    EXPECT_EQ(device(1), std::tuple(0x1209, 0x7E1A, "VeloraSensor"));

    // A description is cut to 29 characters.
    const CyusbConfig cut = readConfig("<VPD>\n1 2 " + std::string(40, 'd') + "\n</VPD>\n");
    ASSERT_EQ(cut.maxdevices, 1);
    EXPECT_EQ(std::string(cut.vpd[0].desc), std::string(29, 'd'));
}

TEST(CyusbConfig, NinthDeviceIsTheLastAndSwallowsTheRestOfTheFile)
{
    std::string content = "<VPD>\n";
    for (int i = 1; i <= 10; ++i)
        content += std::to_string(i) + " " + std::to_string(i) + " dev" + std::to_string(i) + "\n";
    // Not seen: the closing tag and an unknown key behind it.
    content += "</VPD>\nBogusKey 1\n";
    const CyusbConfig c = readConfig(content);
    ASSERT_EQ(c.maxdevices, 9);
    EXPECT_EQ(std::tuple(c.vpd[8].vid, std::string(c.vpd[8].desc)), std::tuple(9, "dev9"));
}

TEST(CyusbConfig, MalformedLinesEndTheRunNamingFileAndLine)
{
    EXPECT_THAT([] { readConfig("# ok\nLogFile x\nVerbose yes\n"); }, failsOnLine(3));
    EXPECT_THAT([] { readConfig("<VPD>\n1209 7e1a Sensor\n</VPD>\n</VPD>\n"); }, failsOnLine(4));
    EXPECT_THAT([] { readConfig("<VPD>\n1209 7e1a\n</VPD>\n"); }, failsOnLine(2));
    // A line longer than 99 characters goes on as a line of its own.
    EXPECT_THAT([] { readConfig("LogFile " + std::string(91, 'a') + "tail\n"); }, failsOnLine(1));
    auto unknown = [] { readConfig("\nunknown\n"); };
    EXPECT_THAT(unknown, testing::ThrowsMessage<ConfigFileError>(testing::HasSubstr("unknown")));
    EXPECT_THAT(unknown, testing::Throws<ConfigFileError>(
                             testing::Property(&ConfigFileError::file, testing::HasSubstr("cyusb.conf"))));
}
