// What the blob listeners of the pointer output make of a frame's blobs: the gestures the
// fan-out hands to its outputs, and the bundles the TUIO output sends, as liblo decodes them.
#include "blob.h"
#include "globalsettings.h"
#include "multipointercontroller.h"
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

// A blob of a session in a state at a screen position, inside the screen or outside it.
struct Spot {
    int state;
    double fx, fy;
    int id = 4;
    bool outside = false;

    Blob blob() const
    {
        Blob b(10, 10, 2, 2, 0);
        b.state = state;
        b.fx = fx;
        b.fy = fy;
        b.sessionId = id;
        b.outside = outside;
        return b;
    }
};

// An output that writes down every call it receives.
class Output : public IPointerController {
public:
    std::string name;
    std::vector<std::string>* log;
    bool* destroyed = nullptr;
    Output(std::string n, std::vector<std::string>* l) : name(std::move(n)), log(l) {}
    ~Output() override
    {
        if (destroyed)
            *destroyed = true;
    }
    void say(const std::string& what, EVector p, int id)
    {
        log->push_back(name + " " + what + " " + std::to_string(int(p.x)) + "," + std::to_string(int(p.y)) + " #"
                       + std::to_string(id));
    }
    void handleDown(EVector p, int id) override { say("down", p, id); }
    void handleMove(EVector p, int id) override { say("move", p, id); }
    void handleUp(EVector p, int id) override { say("up", p, id); }
    void handleDownOutsideScreen(EVector p, int id) override { say("downOut", p, id); }
    void handleMoveOutsideScreen(EVector p, int id) override { say("moveOut", p, id); }
    void handleUpOutsideScreen(EVector p, int id) override { say("upOut", p, id); }
    void mouseWheelUp() override { log->push_back(name + " wheelUp"); }
    void keyPress(std::string key) override { log->push_back(name + " key " + key); }
    void reset() override { log->push_back(name + " reset"); }
};

class PointerFanOut : public ::testing::Test {
protected:
    std::vector<std::string> log;
    MultiPointerController multi;
    Output* primary = new Output("P", &log);
    Output* secondary = new Output("S", &log);

    void SetUp() override
    {
        GS::instance()->screenWidth = 1920;
        GS::instance()->screenHeight = 1080;
        multi.addPrimaryController(primary);
        multi.addSecondaryController(secondary);
        multi.enablePrimary();
        multi.enabled = true;
    }
    void deliver(const std::vector<Spot>& spots)
    {
        for (const Spot& s : spots) {
            Blob b = s.blob();
            s.outside ? multi.newOutsideBlob(&b, {&b}, nullptr) : multi.newBlob(&b, {&b}, nullptr);
        }
    }
};

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

} // namespace

TEST_F(PointerFanOut, BlobStatesBecomeGesturesAtTheScreenPositionOrOutsideCallsWithoutTheScreenTest)
{
    const struct {
        std::vector<Spot> blobs;
        std::vector<std::string> log;
    } cases[] = {
        {{{0, 100, 200, 9}, {2, 110, 210, 9}, {1, 120, 220, 9}, {3, 120, 220, 9}, {-1, 120, 220, 9}},
         {"P down 100,200 #9", "P move 110,210 #9", "P up 120,220 #9"}},
        // Off the screen a blob sends neither down nor move, but always its up.
        {{{0, 0.5, 500}, {2, 1921, 500}, {2, 500, 0.9}, {2, 1, 1}, {2, 1920, 1080}, {1, -5, 300}},
         {"P move 1,1 #4", "P move 1920,1080 #4", "P up -5,300 #4"}},
        {{{0, -50, 3000, 7, true}, {2, -40, 3000, 7, true}, {1, -30, 3000, 7, true}, {3, -30, 3000, 7, true}},
         {"P downOut -50,3000 #7", "P moveOut -40,3000 #7", "P upOut -30,3000 #7"}},
    };
    for (const auto& c : cases) {
        log.clear();
        deliver(c.blobs);
        EXPECT_EQ(log, c.log);
    }
}

TEST_F(PointerFanOut, DisabledSwallowsEverythingEvenTheUpOfAnOpenContact)
{
    deliver({{0, 100, 100}});
    multi.enabled = false;
    deliver({{1, 100, 100}, {0, 100, 100, 5, true}});
    EXPECT_EQ(log, (std::vector<std::string>{"P down 100,100 #4"}));
}

TEST_F(PointerFanOut, CallsGoToTheSelectedListButResetReachesBoth)
{
    multi.addPrimaryController(new Output("P2", &log));
    multi.addPrimaryController(nullptr);
    EXPECT_EQ(multi.primaryControllers.size(), 2);

    multi.handleDown(EVector(1, 2), 3);
    multi.keyPress("a");
    multi.mouseWheelUp();
    multi.mouseWheelDown();
    multi.enableSecondary();
    multi.handleUp(EVector(1, 2), 3);
    multi.reset();
    EXPECT_EQ(log, (std::vector<std::string>{"P down 1,2 #3", "P2 down 1,2 #3", "P key a", "P2 key a", "P wheelUp",
                                             "P2 wheelUp", "S up 1,2 #3", "P reset", "P2 reset", "S reset"}));
}

TEST_F(PointerFanOut, AnEmptySelectedListIsSilentAndTheOwnerDeletesItsOutputs)
{
    bool deleted = false;
    {
        MultiPointerController owner;
        auto* out = new Output("O", &log);
        out->destroyed = &deleted;
        owner.addSecondaryController(out);
        owner.enabled = true;
        owner.handleDown(EVector(5, 5), 1);
        EXPECT_TRUE(log.empty()) << "the primary list is empty";
    }
    EXPECT_TRUE(deleted);
}

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
        {{{0, 100, 50, 7}, {0, 300, 300, 9, true}}, {source, "alive 7", "set 7 0.1 0.1 0 0 0", "fseq 1"}},
        // The moved one gets its velocity and acceleration, the new one its place.
        {{{2, 200, 50, 7}, {0, 500, 250, 8}},
         {source, "alive 7 8", "set 7 0.2 0.1 10 0 1000", "set 8 0.5 0.5 0 0 0", "fseq 2"}},
        // Standing still is no set; a lift leaves the alive list in its own frame.
        {{{2, 200, 50, 7}, {1, 500, 250, 8}}, {source, "alive 7", "fseq 3"}},
        // Off the screen a known touch stays alive without a set, a new one does not start.
        {{{2, -1, -1, 7}, {0, -1, -1, 5}}, {source, "alive 7", "fseq 4"}},
        {{{1, 250, 50, 7}}, {source, "alive", "fseq 5"}},
    };
    for (const auto& frame : frames) {
        std::vector<Blob> blobs;
        for (const Spot& s : frame.spots)
            blobs.push_back(s.blob());
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
