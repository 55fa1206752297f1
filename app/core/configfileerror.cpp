#include "configfileerror.h"

static std::string describe(const std::string& file, int line, const std::string& what)
{
    if (line > 0)
        return file + ":" + std::to_string(line) + ": " + what;
    return file + ": " + what;
}

ConfigFileError::ConfigFileError(std::string file, int line, const std::string& what, int exitStatus)
    : std::runtime_error(describe(file, line, what)), file_(std::move(file)), line_(line),
      exitStatus_(exitStatus)
{
}
