#include "stringutil.h"

#include <cstring>
#include <stdexcept>

std::string StringUtil::trim(const std::string& s)
{
    if (s.empty())
        return s;
    const size_t first = s.find_first_not_of(' ');
    const size_t last = s.find_last_not_of(' ');
    // npos for blanks only: substr throws std::out_of_range here by design.
    return s.substr(first, last - first + 1);
}

void StringUtil::copy(const std::string& s, char** target)
{
    *target = new char[s.size() + 1];
    std::strcpy(*target, s.c_str());
}
