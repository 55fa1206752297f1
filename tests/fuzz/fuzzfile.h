#pragma once

// Files for the readers and writers under test: an in-memory one with a path, which a reader
// opens as it opens any file, and one on disk for a writer that puts a new file in place by
// renaming, which an in-memory file's /proc path cannot take. Either aborts on a failed write.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class MemoryFile {
public:
    explicit MemoryFile(const char* name) : fd(memfd_create(name, 0)), name("/proc/self/fd/" + std::to_string(fd))
    {
        if (fd < 0)
            std::abort();
    }
    const char* path() const { return name.c_str(); }

    void write(const uint8_t* data, size_t size)
    {
        if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
            std::abort();
    }

private:
    int fd;
    std::string name;
};

class DiskFile {
public:
    explicit DiskFile(const char* stem)
        : name(std::filesystem::temp_directory_path() / ("velora-fuzz-" + (stem + ("-" + std::to_string(getpid())))))
    {
    }
    DiskFile(const DiskFile&) = delete;
    ~DiskFile() { std::remove(path()); }
    const char* path() const { return name.c_str(); }

    std::string contents() const
    {
        std::stringstream text;
        text << std::ifstream(name).rdbuf();
        return text.str();
    }

    void write(const uint8_t* data, size_t size)
    {
        std::ofstream out(name, std::ios::binary | std::ios::trunc);
        if (!out.write(reinterpret_cast<const char*>(data), std::streamsize(size)) || !out.flush())
            std::abort();
    }

private:
    std::string name;
};
