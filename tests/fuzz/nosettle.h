#pragma once

// The boot loaders wait a second for real silicon to settle; the emulated bridge has nothing
// to settle, and a fuzzing run cannot spend seconds per input. Only the fuzzing thread skips
// the wait: libFuzzer's memory watcher paces itself with sleep() too, and without its pause
// it spins a whole core. Include in the one source of a target that drives a loader.
#include <cerrno>
#include <ctime>
#include <unistd.h>

extern "C" unsigned int sleep(unsigned int seconds)
{
    if (gettid() == getpid())
        return 0;
    timespec pause{static_cast<time_t>(seconds), 0};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
    return 0;
}
