#pragma once

#include "ibloblistener.h"

#include <lo/lo.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Sends the touches on the screen as TUIO 1.1 cursors (/tuio/2Dcur) over UDP, one OSC
// bundle per frame that has touches, for applications that read TUIO rather than the
// desktop. The frame thread only works out the frame's cursors and hands them over without
// waiting or system calls; a thread of its own encodes and sends them through liblo. A frame
// that finds the hand-over full, or a bundle that the socket cannot take at once, is dropped.
class TuioSender : public IBlobListener {
public:
    using Clock = std::function<std::chrono::nanoseconds()>;

    // host must be a numeric IPv4 address: a name would be looked up while sending.
    TuioSender(const std::string& host, int port, Clock clock = steadyNow);
    // Sends what is still handed over, then ends the sending thread.
    ~TuioSender() override;
    TuioSender(const TuioSender&) = delete;
    TuioSender& operator=(const TuioSender&) = delete;

    // The sender that the key=value file at path asks for, or null when the file is missing or
    // leaves it off. Raises ConfigFileError on a line it cannot use. A host name that does not
    // resolve leaves the output off with a warning: it may resolve at the next start.
    static TuioSender* fromFile(const std::string& path);
    // "tuio.conf" beside the user's user.ini.
    static std::string userFile();

    void newBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image) override;
    void newBlobList(std::vector<Blob*> all) override;

private:
    struct Cursor {
        int32_t id;
        float x, y;
        float speed;
        std::chrono::nanoseconds at;
    };
    struct Set {
        int32_t id;
        float x, y, vx, vy, acceleration;
    };
    // One bundle's content. Slots are swapped, never copied, so that their vectors keep their
    // room and a frame allocates nothing once the touches have been there.
    struct Frame {
        int32_t fseq = 0;
        std::vector<int32_t> alive;
        std::vector<Set> sets;
    };
    static constexpr uint32_t Slots = 8;
    // While frames come the sending thread looks for them this often, without being woken;
    // after this long without one it sleeps until the next.
    static constexpr std::chrono::milliseconds PollEvery{1};
    static constexpr std::chrono::seconds PollFor{1};

    static std::chrono::nanoseconds steadyNow();
    void sendLoop();
    void send(const Frame& frame);

    // The producing side, under producer: the frame thread, or an emulated tap.
    std::mutex producer;
    Clock clock;
    std::vector<Cursor> cursors; // alive, by id, as last sent
    std::vector<Cursor> nextCursors;
    Frame scratch;
    int32_t frameId = 0;
    bool handOverFull = false;

    // The hand-over: one writer (the producing side), one reader (sending thread), no lock.
    std::array<Frame, Slots> handOver;
    std::atomic<uint32_t> published{0};
    std::atomic<uint32_t> taken{0};
    // Rung for a sending thread that is asleep, and at the end.
    std::atomic<uint32_t> bell{0};
    std::atomic<bool> asleep{false};
    std::atomic<bool> stopping{false};

    // Sending thread only, once it runs.
    lo_address target = nullptr;
    // liblo sends from this server's socket, which can be made non-blocking; nothing reads it.
    lo_server socket = nullptr;
    std::string source;
    bool failing = false;

    std::thread sender;
};
