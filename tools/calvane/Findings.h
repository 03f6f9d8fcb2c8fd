#pragma once

#include <string>

#include "quarn/core/IniFile.h"

namespace calvane_program {

/// A place in a description. `key` may be empty, and so may `group`.
struct Place {
    std::string group;
    std::string key;
};

/// "FILE:LINE: [group] key: text", as far as the place is known; `mark` stands before the group.
std::string Locate(const quarn::core::IniFile& ini, const Place& place, const std::string& text,
                   const std::string& mark = {});

/// Writes one line to the standard error stream.
void PrintError(const std::string& line);

/// Checks a description and writes what was found to the standard error stream, one line each. Returns the
/// number of errors and adds the number of warnings to `warnings`.
unsigned int PrintFindings(const quarn::core::IniFile& ini, unsigned int& warnings);

} // namespace calvane_program
