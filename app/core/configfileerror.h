#pragma once

#include <stdexcept>
#include <string>

// A factory or user file that the system cannot run with. Readers raise it with the
// place of the fault; main turns it into one message and the exit status.
class ConfigFileError : public std::runtime_error {
public:
    // line is 1-based, as editors count; 0 when the fault is not on one line.
    ConfigFileError(std::string file, int line, const std::string& what, int exitStatus = 1);

    const std::string& file() const { return file_; }
    int line() const { return line_; }
    int exitStatus() const { return exitStatus_; }

private:
    std::string file_;
    int line_;
    int exitStatus_;
};
