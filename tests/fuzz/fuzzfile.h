#pragma once

// Files for the readers and writers under test: an in-memory one with a path, which a reader
// opens as it opens any file, and one on disk for a writer that puts a new file in place by
// renaming, which an in-memory file's /proc path cannot take.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class FuzzFile {
public:
    FuzzFile(const FuzzFile&) = delete;
    FuzzFile& operator=(const FuzzFile&) = delete;

    std::string contents() const
    {
        std::ifstream in(path_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    const char* path() const { return path_.c_str(); }

protected:
    explicit FuzzFile(std::string path) : path_(std::move(path)) {}
    std::string path_;
};

class MemoryFile : public FuzzFile {
public:
    explicit MemoryFile(const char* name) : FuzzFile(""), fd_(memfd_create(name, 0))
    {
        if (fd_ < 0)
            std::abort();
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }

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

private:
    int fd_;
};

class DiskFile : public FuzzFile {
public:
    explicit DiskFile(const char* name)
        : FuzzFile((std::filesystem::temp_directory_path()
                    / (std::string("velora-fuzz-") + name + "-" + std::to_string(getpid())))
                       .string())
    {
    }
    ~DiskFile() { std::remove(path()); }

    void write(const uint8_t* data, size_t size)
    {
        std::ofstream out(path_, std::ios::binary | std::ios::trunc);
        if (!out.write(reinterpret_cast<const char*>(data), std::streamsize(size)) || !out.flush())
            std::abort();
    }
};
