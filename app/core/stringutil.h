#pragma once

#include <string>

namespace StringUtil {
// Cuts the space character (only that) at both ends. A string of blanks only
// raises std::out_of_range, which the settings reader turns into its error.
std::string trim(const std::string& s);
// new[] copy of s into *target; the caller owns it.
void copy(const std::string& s, char** target);
}
