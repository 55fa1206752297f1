// The control side of the emulated device: the log of what it received, and the boot loaders
// and EEPROM of the bridges, fed with images that the tests build themselves.
#include "emulatorsession.h"

#include <algorithm>

namespace {

std::vector<std::string> withoutTime(const std::vector<std::string>& line)
{
    return std::vector<std::string>(line.begin() + 1, line.end());
}

TEST(EmulatorProtocol, LogsEveryRequestInOrder)
{
    EmulatorSession s("lens none\n");
    EXPECT_EQ(s.writeRegister(5, 999), 3);
    EXPECT_EQ(s.writeRegister(5, 999), 3);
    EXPECT_EQ(s.setOutput(64, 1), 1);
    unsigned char levels[3] = {0, 0, 0};
    EXPECT_EQ(libusb_control_transfer(s.handle, 0x40, 0xFC, 64, 0, levels, 3, 2000), 3);
    EXPECT_EQ(s.start(), 0);
    EXPECT_EQ(libusb_control_transfer(s.handle, 0x40, 0x99, 1, 2, nullptr, 0, 2000), LIBUSB_ERROR_PIPE);
    s.finish();
    auto log = s.lines("log.txt");
    std::vector<std::vector<std::string>> want = {
        {"sync", "reg", "5", "999"}, {"sync", "reg", "5", "999"}, {"sync", "out", "64", "1", "1"},
        {"sync", "out", "64", "0", "3"}, {"sync", "start"}, {"sync", "other", "40", "99", "1", "2", "0"}};
    ASSERT_EQ(log.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(withoutTime(log[i]), want[i]);
    }
}

int readMemory(libusb_device_handle* h, uint32_t address, unsigned char* out, uint16_t length)
{
    return libusb_control_transfer(h, 0xC0, 0xA0, static_cast<uint16_t>(address), static_cast<uint16_t>(address >> 16),
                                   out, length, 1000);
}

// A program loaded in 16-byte pieces while the CPU is held in reset, as the FX2's loader does.
TEST(EmulatorProtocol, Fx2AcceptsADownloadWhileHeldInReset)
{
    EmulatorSession s("bridge fx2\nlens none\n");
    std::vector<unsigned char> program(40);
    for (size_t i = 0; i < program.size(); ++i) {
        program[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    unsigned char one = 1, zero = 0;
    ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, 0xE600, 0, &one, 1, 1000), 1);
    for (size_t at = 0; at < program.size(); at += 16) {
        const auto n = static_cast<uint16_t>(std::min<size_t>(16, program.size() - at));
        ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, static_cast<uint16_t>(0x100 + at), 0,
                                          program.data() + at, n, 1000), n);
    }
    ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, 0xE600, 0, &zero, 1, 1000), 1);

    std::vector<unsigned char> back(program.size());
    ASSERT_EQ(readMemory(s.handle, 0x100, back.data(), static_cast<uint16_t>(back.size())), static_cast<int>(back.size()));
    EXPECT_EQ(back, program);
    s.finish();
    auto log = s.lines("log.txt");
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(withoutTime(log[0]), (std::vector<std::string>{"sync", "fx2-reset", "1"}));
    EXPECT_EQ(withoutTime(log[1]), (std::vector<std::string>{"sync", "fx2-load", "100", "16"}));
    EXPECT_EQ(withoutTime(log[3]), (std::vector<std::string>{"sync", "fx2-load", "120", "8"}));
    EXPECT_EQ(withoutTime(log[4]), (std::vector<std::string>{"sync", "fx2-reset", "0"}));
}

// An FX3 image built here: a section larger than one piece, then the entry point.
TEST(EmulatorProtocol, Fx3AcceptsAnImageInPiecesAndItsEntryPoint)
{
    EmulatorSession s("lens none\n");
    const uint32_t base = 0x40003000, entry = 0x40003010;
    std::vector<unsigned char> section(5000);
    for (size_t i = 0; i < section.size(); ++i) {
        section[i] = static_cast<unsigned char>(i ^ (i >> 8));
    }
    for (size_t at = 0; at < section.size(); at += 4096) {
        uint16_t n = static_cast<uint16_t>(std::min<size_t>(4096, section.size() - at));
        uint32_t a = base + static_cast<uint32_t>(at);
        ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, static_cast<uint16_t>(a), static_cast<uint16_t>(a >> 16),
                                          section.data() + at, n, 1000), n);
    }
    ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, static_cast<uint16_t>(entry),
                                      static_cast<uint16_t>(entry >> 16), nullptr, 0, 1000), 0);
    std::vector<unsigned char> back(section.size());
    ASSERT_EQ(readMemory(s.handle, base, back.data(), 4096), 4096);
    ASSERT_EQ(readMemory(s.handle, base + 4096, back.data() + 4096, 904), 904);
    EXPECT_EQ(back, section);
    s.finish();
    auto log = s.lines("log.txt");
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(withoutTime(log[0]), (std::vector<std::string>{"sync", "fx3-load", "40003000", "4096"}));
    EXPECT_EQ(withoutTime(log[1]), (std::vector<std::string>{"sync", "fx3-load", "40004000", "904"}));
    EXPECT_EQ(withoutTime(log[2]), (std::vector<std::string>{"sync", "fx3-entry", "40003010"}));
}

TEST(EmulatorProtocol, EepromKeepsPagesAndReadsThemBack)
{
    EmulatorSession s("lens none\n");
    std::vector<unsigned char> data(70);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<unsigned char>(200 - i);
    }
    for (size_t at = 0; at < data.size(); at += 32) {
        uint16_t n = static_cast<uint16_t>(std::min<size_t>(32, data.size() - at));
        ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xF4, static_cast<uint16_t>(0x1000 + at), 0, data.data() + at,
                                          n, 2000), n);
    }
    std::vector<unsigned char> back(data.size());
    for (size_t at = 0; at < back.size(); at += 32) {
        uint16_t n = static_cast<uint16_t>(std::min<size_t>(32, back.size() - at));
        ASSERT_EQ(libusb_control_transfer(s.handle, 0xC5, 0xF3, static_cast<uint16_t>(0x1000 + at), 0, back.data() + at,
                                          n, 2000), n);
    }
    EXPECT_EQ(back, data);
}

} // namespace
