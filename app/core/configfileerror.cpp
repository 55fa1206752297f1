#include "configfileerror.h"

static std::string describe(const std::string& file, int line, const std::string& what)
{
    std::string text = file;
    if (line > 0) {
        text += ':';
        text += std::to_string(line);
    }
    text += ": ";
    text += what;
    return text;
}

ConfigFileError::ConfigFileError(std::string file, int line, const std::string& what, int exitStatus)
    : std::runtime_error(describe(file, line, what)), file_(std::move(file)), line_(line),
      exitStatus_(exitStatus)
{
}
