#pragma once

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>

// Seconds since the emulated stream started, by the last frame the emulator logged in its
// truth file; only the file's tail is read, so tests may ask often.
inline double streamSeconds(const std::string& truthPath)
{
    std::ifstream in(truthPath);
    in.seekg(0, std::ios::end);
    in.seekg(std::max<std::streamoff>(0, std::streamoff(in.tellg()) - 4096));
    std::string line;
    double t = -1;
    while (std::getline(in, line))
        if (line.rfind("F ", 0) == 0) {
            std::istringstream s(line);
            std::string f, frame;
            s >> f >> frame >> t;
        }
    return t;
}
