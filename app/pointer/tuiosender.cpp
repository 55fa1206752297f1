#include "tuiosender.h"

#include "blob.h"
#include "configfileerror.h"
#include "globalsettings.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>

namespace {

const char* const Profile = "/tuio/2Dcur";

void reportLoError(int number, const char* message, const char* where)
{
    qWarning() << "TUIO output: liblo error" << number << message << (where ? where : "");
}

std::string trimmed(const std::string& s)
{
    const size_t begin = s.find_first_not_of(" \t\r");
    if (begin == std::string::npos)
        return {};
    return s.substr(begin, s.find_last_not_of(" \t\r") - begin + 1);
}

std::string thisHost()
{
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || !name[0])
        return "localhost";
    return name;
}

// The first IPv4 address of host, numeric, or empty. liblo as packaged sends over IPv4 only.
std::string numericIpv4(const std::string& host)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found)
        return {};
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr, text, sizeof text);
    freeaddrinfo(found);
    return text;
}

} // namespace

TuioSender::TuioSender(const std::string& host, int port, Clock clock)
    : clock(std::move(clock)), source("velora@" + thisHost())
{
    target = lo_address_new(host.c_str(), std::to_string(port).c_str());
    // Port "0": the kernel picks a free one, as for any socket that only sends.
    socket = lo_server_new_with_proto("0", LO_UDP, reportLoError);
    if (socket) {
        const int fd = lo_server_get_socket_fd(socket);
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    }
    sender = std::thread([this] { sendLoop(); });
    pthread_setname_np(sender.native_handle(), "tuio");
}

TuioSender::~TuioSender()
{
    stopping = true;
    bell.fetch_add(1, std::memory_order_release);
    bell.notify_one();
    sender.join();
    if (socket)
        lo_server_free(socket);
    if (target)
        lo_address_free(target);
}

std::chrono::nanoseconds TuioSender::steadyNow()
{
    return std::chrono::steady_clock::now().time_since_epoch();
}

std::string TuioSender::userFile()
{
    const QFileInfo user(QString::fromStdString(GS::instance()->userSettingsPath));
    return user.dir().filePath(QStringLiteral("tuio.conf")).toStdString();
}

TuioSender* TuioSender::fromFile(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        return nullptr;

    bool enabled = false;
    std::string host = "127.0.0.1";
    int hostLine = 0;
    int port = 3333;
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        line = trimmed(line.substr(0, line.find('#')));
        if (line.empty())
            continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos)
            throw ConfigFileError(path, n, "expected a line 'key = value' (keys: enabled, host, port)");
        const std::string key = trimmed(line.substr(0, eq));
        const std::string value = trimmed(line.substr(eq + 1));
        if (key == "enabled") {
            if (value != "0" && value != "1")
                throw ConfigFileError(path, n, "enabled must be 0 or 1, not '" + value + "'");
            enabled = value == "1";
        } else if (key == "host") {
            if (value.empty())
                throw ConfigFileError(path, n, "host is empty; give an address such as 127.0.0.1");
            host = value;
            hostLine = n;
        } else if (key == "port") {
            char* end = nullptr;
            errno = 0;
            const long number = value.empty() ? 0 : std::strtol(value.c_str(), &end, 10);
            if (value.empty() || *end || errno || number < 1 || number > 65535)
                throw ConfigFileError(path, n, "port must be a whole number from 1 to 65535, not '" + value + "'");
            port = int(number);
        } else {
            throw ConfigFileError(path, n, "unknown setting '" + key + "' (keys: enabled, host, port)");
        }
    }
    if (!enabled)
        return nullptr;

    // Looked up once here, at start, so that sending never waits for a name server.
    const std::string address = numericIpv4(host);
    if (address.empty()) {
        qWarning().noquote() << QString::fromStdString(path) + ":" + QString::number(hostLine) + ":"
                             << "host" << QString::fromStdString(host)
                             << "has no IPv4 address; the TUIO output stays off";
        return nullptr;
    }
    qDebug().noquote() << "TUIO output to" << QString::fromStdString(address) + ":" + QString::number(port);
    return new TuioSender(address, port);
}

void TuioSender::newBlob(Blob*, std::vector<Blob*>, unsigned char*)
{
    // Everything goes out per frame, in newBlobList.
}

void TuioSender::newBlobList(std::vector<Blob*> all)
{
    const GS* gs = GS::instance();
    const int width = gs->screenWidth;
    const int height = gs->screenHeight;
    if (width <= 0 || height <= 0)
        return;
    // An emulated tap arrives on the thread of whoever emulates it. The frame thread never
    // waits for it: a frame that meets one is dropped, as the tap would be the other way round.
    std::unique_lock<std::mutex> producing(producer, std::try_to_lock);
    if (!producing.owns_lock())
        return;
    const std::chrono::nanoseconds now = clock();
    auto known = [this](int id) -> const Cursor* {
        const auto it = std::lower_bound(cursors.begin(), cursors.end(), id,
                                         [](const Cursor& c, int key) { return c.id < key; });
        return it != cursors.end() && it->id == id ? &*it : nullptr;
    };

    scratch.alive.clear();
    scratch.sets.clear();
    nextCursors.clear();
    for (const Blob* b : all) {
        // A lift leaves the alive list in the frame of the loss; the bar's blobs are no cursors.
        if (b->outside || b->state == 1)
            continue;
        const Cursor* old = known(b->sessionId);
        // As the pointer output: off the screen a touch neither starts nor moves.
        if (b->isOutOfScreen(width, height)) {
            if (old) {
                scratch.alive.push_back(old->id);
                nextCursors.push_back(*old);
            }
            continue;
        }
        scratch.alive.push_back(b->sessionId);
        Cursor c{b->sessionId, float(b->fx / width), float(b->fy / height), 0.0f, now};
        Set set{c.id, c.x, c.y, 0, 0, 0};
        if (old) {
            if (c.x == old->x && c.y == old->y) {
                nextCursors.push_back(c);
                continue;
            }
            const double dt = std::chrono::duration<double>(now - old->at).count();
            if (dt > 0) {
                set.vx = float((c.x - old->x) / dt);
                set.vy = float((c.y - old->y) / dt);
                c.speed = std::hypot(set.vx, set.vy);
                set.acceleration = float((c.speed - old->speed) / dt);
            }
        }
        scratch.sets.push_back(set);
        nextCursors.push_back(c);
    }
    std::sort(nextCursors.begin(), nextCursors.end(), [](const Cursor& a, const Cursor& b) { return a.id < b.id; });
    cursors.swap(nextCursors);
    scratch.fseq = ++frameId;

    // Hand the frame over without waiting: when the sending thread lags a whole set of
    // slots behind, this frame's bundle is dropped.
    const uint32_t next = published.load(std::memory_order_relaxed);
    const bool full = next - taken.load(std::memory_order_acquire) == Slots;
    if (full != handOverFull) {
        handOverFull = full;
        if (full)
            qWarning() << "TUIO output: the sending thread lags, bundles are dropped";
    }
    if (full)
        return;
    std::swap(handOver[next % Slots], scratch);
    published.store(next + 1, std::memory_order_seq_cst);
    // Waking a thread costs a system call, as much as sending; while touches come the sending
    // thread looks by itself, and only once it has gone to sleep is it rung for.
    if (asleep.load(std::memory_order_seq_cst)) {
        bell.fetch_add(1, std::memory_order_release);
        bell.notify_one();
    }
}

void TuioSender::sendLoop()
{
    using namespace std::chrono;
    Frame frame;
    auto lastFrame = steady_clock::now();
    for (;;) {
        const uint32_t next = taken.load(std::memory_order_relaxed);
        if (published.load(std::memory_order_acquire) != next) {
            std::swap(frame, handOver[next % Slots]);
            taken.store(next + 1, std::memory_order_release);
            send(frame);
            lastFrame = steady_clock::now();
            continue;
        }
        if (stopping)
            return;
        if (steady_clock::now() - lastFrame < PollFor) {
            std::this_thread::sleep_for(PollEvery);
            continue;
        }
        // The bell is read before asleep is set and the slots are looked at again: a hand-over
        // in between either is seen here or rings, and then the wait returns at once.
        const uint32_t rung = bell.load(std::memory_order_seq_cst);
        asleep.store(true, std::memory_order_seq_cst);
        if (published.load(std::memory_order_seq_cst) == next && !stopping)
            bell.wait(rung, std::memory_order_acquire);
        asleep.store(false, std::memory_order_relaxed);
        lastFrame = steady_clock::now();
    }
}

void TuioSender::send(const Frame& frame)
{
    lo_bundle bundle = lo_bundle_new(LO_TT_IMMEDIATE);
    lo_message head = lo_message_new();
    lo_message_add_string(head, "source");
    lo_message_add_string(head, source.c_str());
    lo_bundle_add_message(bundle, Profile, head);
    lo_message alive = lo_message_new();
    lo_message_add_string(alive, "alive");
    for (int32_t id : frame.alive)
        lo_message_add_int32(alive, id);
    lo_bundle_add_message(bundle, Profile, alive);
    for (const Set& s : frame.sets) {
        lo_message set = lo_message_new();
        lo_message_add_string(set, "set");
        lo_message_add_int32(set, s.id);
        lo_message_add_float(set, s.x);
        lo_message_add_float(set, s.y);
        lo_message_add_float(set, s.vx);
        lo_message_add_float(set, s.vy);
        lo_message_add_float(set, s.acceleration);
        lo_bundle_add_message(bundle, Profile, set);
    }
    lo_message fseq = lo_message_new();
    lo_message_add_string(fseq, "fseq");
    lo_message_add_int32(fseq, frame.fseq);
    lo_bundle_add_message(bundle, Profile, fseq);

    const bool sent = socket && lo_send_bundle_from(target, socket, bundle) >= 0;
    lo_bundle_free_recursive(bundle);
    // One line when sending starts to fail, one when it works again.
    if (sent == failing) {
        failing = !sent;
        if (failing)
            qWarning() << "TUIO output: bundles are dropped:" << lo_address_errstr(target);
        else
            qDebug() << "TUIO output: sending again";
    }
}
