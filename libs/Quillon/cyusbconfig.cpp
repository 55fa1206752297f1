#include "cyusbconfig.h"

#include "configfileerror.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Lines are taken 99 characters at a time: a longer line goes on as a line of its own.
constexpr int LineBuffer = 100;

bool isSkipped(const char* line)
{
    if (line[0] == '#' || line[0] == '\n')
        return true;
    return line[strspn(line, " \t\r\n")] == '\0';
}

// Copies at most size - 1 characters of a token, or nothing when there is none.
void copyToken(char* target, size_t size, const char* token)
{
    if (!token)
        return;
    strncpy(target, token, size - 1);
    target[size - 1] = '\0';
}

class LineReader {
public:
    explicit LineReader(FILE* file) : file(file) {}

    bool next(char* buffer)
    {
        if (!fgets(buffer, LineBuffer, file))
            return false;
        if (lastEndedLine)
            ++number;
        lastEndedLine = strchr(buffer, '\n') != nullptr;
        return true;
    }

    int number = 0;

private:
    FILE* file;
    bool lastEndedLine = true;
};

std::string withoutLineFeed(const char* line)
{
    std::string s(line);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
        s.pop_back();
    return s;
}

} // namespace

void CyusbConfig::read(const char* path, int fd)
{
    *this = CyusbConfig();
    FILE* file = fdopen(fd, "r");
    if (!file)
        return;
    LineReader reader(file);
    char buffer[LineBuffer];
    char* save = nullptr;

    auto fail = [&](const std::string& text, const std::string& message) {
        fprintf(stderr, "Error in config file cyusb.conf. %s \n", text.c_str());
        const int line = reader.number;
        fclose(file);
        throw ConfigFileError(path, line, message);
    };

    while (reader.next(buffer)) {
        if (isSkipped(buffer))
            continue;
        const std::string original = withoutLineFeed(buffer);
        char* key = strtok_r(buffer, " =\t\n", &save);
        if (!key)
            continue;
        if (strcmp(key, "LogFile") == 0) {
            copyToken(logfile, sizeof logfile, strtok_r(nullptr, " \t\n", &save));
        } else if (strcmp(key, "PIDFile") == 0) {
            copyToken(pidfile, sizeof pidfile, strtok_r(nullptr, " \t\n", &save));
        } else if (strcmp(key, "<VPD>") == 0) {
            bool closed = false;
            while (!closed && reader.next(buffer)) {
                // A full table swallows the rest of the file, the closing tag with it.
                if (maxdevices >= DeviceLimit || isSkipped(buffer))
                    continue;
                const std::string deviceLine = withoutLineFeed(buffer);
                char* vid = strtok_r(buffer, " \t", &save);
                if (vid && strncmp(vid, "</VPD>", 6) == 0 && vid[6 + strspn(vid + 6, "\r\n")] == '\0') {
                    closed = true;
                    continue;
                }
                char* pid = strtok_r(nullptr, " \t", &save);
                char* desc = strtok_r(nullptr, " \t\n", &save);
                if (!vid || !pid || !desc) {
                    fail(deviceLine, "a device line needs a vendor number, a product number and a description: '"
                                         + deviceLine + "'");
                }
                VPD& d = vpd[maxdevices++];
                d.vid = static_cast<unsigned short>(strtol(vid, nullptr, 16));
                d.pid = static_cast<unsigned short>(strtol(pid, nullptr, 16));
                copyToken(d.desc, sizeof d.desc, desc);
            }
        } else {
            const std::string k = key;
            fail(original, "unknown key '" + k + "'; expected LogFile, PIDFile or <VPD>");
        }
    }
    fclose(file);
}
