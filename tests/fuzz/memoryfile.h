#pragma once

// An in-memory file with a path, so that a reader opens it as it opens any file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

class MemoryFile {
public:
    explicit MemoryFile(const char* name) : fd_(memfd_create(name, 0))
    {
        if (fd_ < 0)
            std::abort();
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    void write(const uint8_t* data, size_t size)
    {
        if (ftruncate(fd_, 0) != 0)
            std::abort();
        size_t done = 0;
        while (done < size) {
            const ssize_t n = pwrite(fd_, data + done, size - done, static_cast<off_t>(done));
            if (n <= 0)
                std::abort();
            done += static_cast<size_t>(n);
        }
    }
    std::string contents() const
    {
        std::ifstream in(path_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    const char* path() const { return path_.c_str(); }

private:
    int fd_;
    std::string path_;
};
