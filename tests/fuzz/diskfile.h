#pragma once

// A file on disk for a writer that puts a new file in place by renaming, which an in-memory
// file's /proc path cannot take.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class DiskFile {
public:
    explicit DiskFile(const char* name)
        : path_((std::filesystem::temp_directory_path() / (std::string("velora-fuzz-") + name + "-"
                                                           + std::to_string(getpid())))
                    .string())
    {
    }
    DiskFile(const DiskFile&) = delete;
    DiskFile& operator=(const DiskFile&) = delete;
    ~DiskFile() { std::remove(path_.c_str()); }

    std::string contents() const
    {
        std::ifstream in(path_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    const char* path() const { return path_.c_str(); }

private:
    std::string path_;
};
