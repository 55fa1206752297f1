#pragma once

#include "ibloblistener.h"

#include <lo/lo.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

// Sends the touches on the screen as TUIO 1.1 cursors (/tuio/2Dcur) over UDP, one OSC
// bundle per frame that has touches, for applications that read TUIO rather than the
// desktop. Runs on the frame thread: the socket never blocks, and a bundle that cannot go
// out at once is dropped.
class TuioSender : public IBlobListener {
public:
    using Clock = std::function<std::chrono::nanoseconds()>;

    // host must be a numeric IPv4 address: a name would be looked up on the frame thread.
    TuioSender(const std::string& host, int port, Clock clock = steadyNow);
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
        float x, y;
        float speed;
        std::chrono::nanoseconds at;
    };

    static std::chrono::nanoseconds steadyNow();

    Clock clock;
    lo_address target = nullptr;
    // liblo sends from this server's socket, which we can make non-blocking; nothing reads it.
    lo_server socket = nullptr;
    std::string source;
    // Alive cursors by session id, as last sent.
    std::map<int, Cursor> cursors;
    int32_t frameId = 0;
    bool failing = false;
};
