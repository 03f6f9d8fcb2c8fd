#include "calvane/Findings.h"

#include <iostream>

#include "calvane/config/DescriptionCheck.h"

namespace calvane_program {

namespace {

std::string Format(const std::string& file, unsigned int line, const Place& place, const std::string& text,
                   const std::string& mark) {
    std::string located = file + ":";
    if (line != 0) {
        located += std::to_string(line) + ":";
    }
    located += " " + mark;
    if (!place.group.empty()) {
        located += "[" + place.group + "] ";
    }
    if (!place.key.empty()) {
        located += place.key + ": ";
    }
    return located + text;
}

} // namespace

std::string Locate(const quarn::core::IniFile& ini, const Place& place, const std::string& text,
                   const std::string& mark) {
    unsigned int line = ini.GetKeyLine(place.group, place.key);
    if (line == 0) {
        line = ini.GetGroupLine(place.group);
    }
    return Format(ini.GetFileName(), line, place, text, mark);
}

void PrintError(const std::string& line) {
    std::cerr << line + "\n" << std::flush;
}

unsigned int PrintFindings(const quarn::core::IniFile& ini, unsigned int& warnings) {
    unsigned int errors = 0;
    for (const auto& finding : quarn::calvane::CheckDescription(ini)) {
        ++(finding.isError ? errors : warnings);
        PrintError(Format(ini.GetFileName(), finding.line, {finding.group, finding.key}, finding.text,
                          finding.isError ? "" : "warning: "));
    }
    return errors;
}

} // namespace calvane_program
