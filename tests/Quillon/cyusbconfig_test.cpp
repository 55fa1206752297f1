#include "configfileerror.h"
#include "cyusbconfig.h"

#include <gmock/gmock.h>

#include <QDir>

#include <fcntl.h>
#include <fstream>
#include <string>
#include <tuple>

static CyusbConfig readConfig(const std::string& content)
{
    const std::string path = QDir::tempPath().toStdString() + "/cyusb.conf";
    std::ofstream(path) << content;
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
