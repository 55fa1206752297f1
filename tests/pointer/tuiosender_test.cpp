// What the TUIO output puts into its bundles, as liblo decodes them.
#include "blob.h"
#include "globalsettings.h"
#include "tuiosender.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

namespace {

// The next frame's bundle as text: each message as its command and arguments, floats to 4 digits.
std::vector<std::string> nextBundle(int receiver)
{
    char datagram[65536];
    const ssize_t size = recv(receiver, datagram, sizeof datagram, 0);
    std::vector<std::string> messages;
    const std::string socketPath = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") + "/decode";
    unlink(socketPath.c_str());
    lo_server decoder = lo_server_new_with_proto(socketPath.c_str(), LO_UNIX, nullptr);
    lo_server_add_method(
        decoder, "/tuio/2Dcur", nullptr,
        [](const char*, const char* types, lo_arg** argv, int argc, lo_message, void* out) {
            std::ostringstream text;
            text << std::setprecision(4);
            for (int i = 0; i < argc; ++i) {
                // OSC aligns arguments to 4 bytes, less than the union liblo hands them in.
                const char* raw = reinterpret_cast<const char*>(argv[i]);
                int32_t number;
                float real;
                std::memcpy(&number, raw, sizeof number);
                std::memcpy(&real, raw, sizeof real);
                text << (i ? " " : "");
                types[i] == 's' ? text << raw : types[i] == 'i' ? text << number : text << real;
            }
            static_cast<std::vector<std::string>*>(out)->push_back(text.str());
            return 0;
        },
        &messages);
    int bundles = 0;
    lo_server_add_bundle_handlers(
        decoder, [](lo_timetag, void* n) { return ++*static_cast<int*>(n), 0; }, [](void*) { return 0; },
        &bundles);
    if (size > 0)
        lo_server_dispatch_data(decoder, datagram, size_t(size));
    lo_server_free(decoder);
    EXPECT_EQ(bundles, 1) << "one bundle a frame";
    return messages;
}

struct Spot {
    int id;
    int state;
    double fx, fy;
    bool outside = false;
};

TEST(TuioSender, EachFrameIsOneBundleOfItsCursors)
{
    GS::instance()->screenWidth = 1000;
    GS::instance()->screenHeight = 500;

    const int receiver = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof at;
    ASSERT_EQ(bind(receiver, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
    getsockname(receiver, reinterpret_cast<sockaddr*>(&at), &size);
    const timeval patience{5, 0};
    setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);

    // Frames 10 ms apart: velocities are in screens per second, acceleration in screens per second².
    std::chrono::nanoseconds now{0};
    TuioSender sender("127.0.0.1", ntohs(at.sin_port), [&] { return now += std::chrono::milliseconds(10); });
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    const std::string source = std::string("source velora@") + host;

    const struct {
        std::vector<Spot> spots;
        std::vector<std::string> messages;
    } frames[] = {
        // A new touch is set at rest; a blob of the bar is no cursor.
        {{{7, 0, 100, 50}, {9, 0, 300, 300, true}}, {source, "alive 7", "set 7 0.1 0.1 0 0 0", "fseq 1"}},
        // The moved one gets its velocity and acceleration, the new one its place.
        {{{7, 2, 200, 50}, {8, 0, 500, 250}},
         {source, "alive 7 8", "set 7 0.2 0.1 10 0 1000", "set 8 0.5 0.5 0 0 0", "fseq 2"}},
        // Standing still is no set; a lift leaves the alive list in its own frame.
        {{{7, 2, 200, 50}, {8, 1, 500, 250}}, {source, "alive 7", "fseq 3"}},
        // Off the screen a known touch stays alive without a set, a new one does not start.
        {{{7, 2, -1, -1}, {5, 0, -1, -1}}, {source, "alive 7", "fseq 4"}},
        {{{7, 1, 250, 50}}, {source, "alive", "fseq 5"}},
    };
    for (const auto& frame : frames) {
        std::vector<Blob> blobs;
        for (const Spot& s : frame.spots) {
            Blob& b = blobs.emplace_back(0, 0, 4, 4, 0);
            b.sessionId = s.id;
            b.state = s.state;
            b.fx = s.fx;
            b.fy = s.fy;
            b.outside = s.outside;
        }
        std::vector<Blob*> all;
        for (Blob& b : blobs)
            all.push_back(&b);
        for (Blob* b : all)
            sender.newBlob(b, all, nullptr);
        sender.newBlobList(all);
        EXPECT_EQ(nextBundle(receiver), frame.messages);
    }
    close(receiver);
}

} // namespace
