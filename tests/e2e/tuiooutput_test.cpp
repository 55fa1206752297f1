// The TUIO output on the emulated sensor, heard by liblo's oscdump, a receiver that is not ours,
// on a free port of 127.0.0.1: one bundle per frame that reached the outputs, each stroke one
// session id on its path from its first frame to its last, nothing alive after the last lift,
// fseq rising; and the touch device still carries every stroke as one contact.
#include "endtoendrun.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <set>

extern char** environ;

namespace {

const char* const scene = R"(
screen 1920 1080
lens factory
stamp on
stroke stylus 6.0 1.5 size 9 path 300,300 1600,300
tap    stylus 8.0 0.2 size 9 at 960,700
stroke stylus 9.0 1.5 size 9 path 300,500 1500,500
stroke stylus 9.0 1.5 size 9 path 1500,800 300,800
stroke stylus 11.0 2.0 size 9 path 250,110 1650,110
stroke stylus 11.0 2.0 size 9 path 1650,290 250,290
stroke stylus 11.0 2.0 size 9 path 250,470 1650,470
stroke stylus 11.0 2.0 size 9 path 1650,650 250,650
stroke stylus 11.0 2.0 size 9 path 250,830 1650,830
)";
const size_t Strokes = 9;

sockaddr_in loopback(int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(uint16_t(port));
    return a;
}

// A UDP port of 127.0.0.1 that nobody holds, or -1.
int freePort()
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a = loopback(0);
    socklen_t size = sizeof a;
    const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0
        && getsockname(fd, reinterpret_cast<sockaddr*>(&a), &size) == 0;
    close(fd);
    return bound ? ntohs(a.sin_port) : -1;
}

// Whether somebody holds this UDP port of 127.0.0.1.
bool portHeld(int port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in a = loopback(port);
    const bool held = bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 && errno == EADDRINUSE;
    close(fd);
    return held;
}

// oscdump on 127.0.0.1:port only (its wildcard bind is turned into a loopback one), its
// lines into a file. Spawned, not started by QProcess: after a child of QProcess the thread
// checker no longer sees this process's locks.
class OscDump {
public:
    OscDump(int port, const std::string& output)
    {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::vector<std::string> env;
        for (char** e = environ; *e; ++e)
            if (std::string(*e).rfind("LD_PRELOAD=", 0) != 0)
                env.emplace_back(*e);
        env.push_back(std::string("LD_PRELOAD=") + VELORA_LOOPBACK_ONLY);
        std::vector<char*> envp;
        for (std::string& e : env)
            envp.push_back(e.data());
        envp.push_back(nullptr);
        std::string name = "oscdump", lineBuffered = "-L", portText = std::to_string(port);
        char* argv[] = {name.data(), lineBuffered.data(), portText.data(), nullptr};
        if (posix_spawnp(&pid, "oscdump", &actions, nullptr, argv, envp.data()) != 0)
            pid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~OscDump() { stop(); }
    void stop()
    {
        if (pid <= 0)
            return;
        kill(pid, SIGINT);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
    pid_t pid = -1;
};

struct Cursor {
    int id;
    double x, y;
};
struct Bundle {
    std::string timetag;
    std::vector<int> alive;
    std::vector<Cursor> sets;
    long fseq = -1;
};

// oscdump prints each message of a bundle as "<bundle time> <path> <types> <arguments>".
// A bundle must be source, alive, any sets, fseq, all under one time; anything else is a fault.
std::vector<Bundle> readBundles(const std::string& path)
{
    std::vector<Bundle> bundles;
    std::ifstream in(path);
    std::string line;
    bool open = false;
    while (std::getline(in, line)) {
        std::istringstream s(line);
        std::string timetag, address, types, command;
        s >> timetag >> address >> types >> command;
        if (address != "/tuio/2Dcur") {
            ADD_FAILURE() << "not a cursor message: " << line;
            continue;
        }
        const bool sameBundle = open && bundles.back().timetag == timetag;
        if (command == "\"source\"" && types == "ss" && !open) {
            bundles.emplace_back();
            bundles.back().timetag = timetag;
            open = true;
        } else if (command == "\"alive\"" && sameBundle && types.rfind('s', 0) == 0
                   && types.find_first_not_of('i', 1) == std::string::npos && bundles.back().alive.empty()) {
            for (int id; s >> id;)
                bundles.back().alive.push_back(id);
        } else if (command == "\"set\"" && sameBundle && types == "sifffff") {
            Cursor c;
            s >> c.id >> c.x >> c.y;
            bundles.back().sets.push_back(c);
        } else if (command == "\"fseq\"" && sameBundle && types == "si") {
            s >> bundles.back().fseq;
            open = false;
        } else {
            ADD_FAILURE() << "out of place in a bundle: " << line;
        }
    }
    EXPECT_FALSE(open) << "the last bundle has no fseq";
    return bundles;
}

TEST(TuioOutput, OscdumpHearsEachStrokeAsOneCursorBesideTheTouchDevice)
{
    const int port = freePort();
    ASSERT_GT(port, 0) << "no free UDP port on 127.0.0.1";
    const char* tmp = std::getenv("TMPDIR");
    const std::string dumpFile = std::string(tmp ? tmp : "/tmp") + "/oscdump.txt";
    OscDump dump(port, dumpFile);
    ASSERT_GT(dump.pid, 0) << "oscdump did not start (package liblo-tools)";
    for (int i = 0; i < 500 && !portHeld(port); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(portHeld(port)) << "oscdump does not listen on 127.0.0.1:" << port;

    // Where the README says the setting lives.
    const std::string folder = std::string(std::getenv("HOME")) + "/Documents/Velora";
    ASSERT_EQ(std::system(("mkdir -p " + folder).c_str()), 0);
    std::ofstream(folder + "/tuio.conf") << "# TUIO for the test's receiver\nenabled = 1\nhost = 127.0.0.1\nport = "
                                         << port << "\n";

    EndToEndRun run;
    ASSERT_NO_FATAL_FAILURE(run.run(scene, 1, 1, 15.0, 1920, 1080));
    dump.stop();

    // The pointer output is what it is without TUIO.
    expectOneContactPerStroke(run, 1920, 1080, Strokes, 3.0);

    const std::vector<Bundle> bundles = readBundles(dumpFile);
    ASSERT_FALSE(bundles.empty());
    EXPECT_EQ(bundles.size(), run.handledAt.size()) << "one bundle per frame that reached the outputs";
    EXPECT_TRUE(bundles.back().alive.empty()) << "cursors left alive after the last lift";

    // Each session id is alive over one unbroken run of bundles; its positions, in desktop pixels,
    // make one gesture for the stroke comparison.
    std::map<int, size_t> gestureOf;
    std::vector<Gesture> gestures;
    std::set<int> previous;
    for (size_t i = 0; i < bundles.size(); ++i) {
        const Bundle& b = bundles[i];
        EXPECT_TRUE(i == 0 || b.fseq > bundles[i - 1].fseq) << "fseq does not rise at bundle " << i;
        const std::set<int> alive(b.alive.begin(), b.alive.end());
        for (int id : previous)
            if (!alive.count(id))
                gestures[gestureOf[id]].closed = true;
        for (int id : alive) {
            if (!gestureOf.count(id)) {
                gestureOf[id] = gestures.size();
                gestures.push_back({id, {}, false});
            }
            EXPECT_FALSE(gestures[gestureOf[id]].closed) << "session " << id << " alive again at bundle " << i;
        }
        for (const Cursor& c : b.sets) {
            ASSERT_TRUE(alive.count(c.id)) << "set for session " << c.id << " that is not alive, bundle " << i;
            gestures[gestureOf[c.id]].points.emplace_back(c.x * 1920, c.y * 1080);
        }
        previous = alive;
    }
    expectOneGesturePerStroke(gestures, run.tracks(), 3.0);
}

} // namespace
