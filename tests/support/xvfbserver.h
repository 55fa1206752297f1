#pragma once
// A private X server for one test binary. Xvfb picks its own free display and tells it through
// -displayfd; DISPLAY then points the process at it.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

class XvfbServer {
public:
    std::string display;
    std::string failure;

    // screen is Xvfb's WIDTHxHEIGHTxDEPTH.
    bool start(const std::string& screen)
    {
        int fds[2];
        if (pipe(fds) != 0)
            return fail("pipe");
        const std::string fdText = std::to_string(fds[1]);
        std::vector<std::string> args = {"Xvfb", "-displayfd", fdText, "-screen", "0", screen, "-nolisten", "tcp"};
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        // Not the test's own output: a server outliving a crashed test would keep the runner waiting.
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        const int rc = posix_spawnp(&pid, "Xvfb", &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        if (rc != 0) {
            close(fds[0]);
            pid = 0;
            return fail("cannot start Xvfb");
        }
        std::string number;
        pollfd p{fds[0], POLLIN, 0};
        while (poll(&p, 1, 30000) > 0) {
            char c;
            if (read(fds[0], &c, 1) != 1 || c == '\n')
                break;
            number += c;
        }
        close(fds[0]);
        if (number.empty())
            return fail("Xvfb gave no display number");
        display = ":" + number;
        setenv("DISPLAY", display.c_str(), 1);
        return true;
    }

    void stop()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
        pid = 0;
    }

    ~XvfbServer() { stop(); }

private:
    pid_t pid = 0;

    bool fail(const std::string& why)
    {
        failure = why;
        return false;
    }
};
