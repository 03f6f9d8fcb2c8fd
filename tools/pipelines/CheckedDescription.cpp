#include "pipelines/CheckedDescription.h"

#include <iostream>

namespace calvane_program {

using quarn::calvane::DescriptionPlace;

void PrintError(const std::string& line) {
    std::cerr << line + "\n" << std::flush;
}

void PrintLine(Severity, const std::string& line) {
    PrintError(line);
}

CheckedDescription::CheckedDescription(quarn::core::IniFile ini, Reporter reporter)
    : reporter_(std::move(reporter)), ini_(std::move(ini)), description_(ini_), graph_(description_) {}

bool CheckedDescription::Check() {
    for (const auto& finding : quarn::calvane::CheckDescription(graph_, types_)) {
        if (finding.isError) {
            PrintError({finding.group, finding.key}, finding.text);
        } else {
            PrintWarning({finding.group, finding.key}, finding.text);
        }
    }
    return errors_ == 0;
}

void CheckedDescription::WarnAboutUnused(const std::vector<DescriptionPlace>& settings) {
    for (const DescriptionPlace& setting : settings) {
        if (places_.count({setting.group, setting.key}) == 0) {
            PrintWarning(setting, "Setting " + setting.key + " was never used");
        }
    }
}

void CheckedDescription::PrintError(const DescriptionPlace& place, const std::string& text) {
    ++errors_;
    Report(Severity::Error, place, text);
}

void CheckedDescription::PrintWarning(const DescriptionPlace& place, const std::string& text) {
    ++warnings_;
    Report(Severity::Warning, place, text);
}

void CheckedDescription::Report(Severity severity, const DescriptionPlace& place, const std::string& text) {
    places_.emplace(place.group, place.key);
    const unsigned int line = description_.GetLine(place);
    reporter_(severity, ini_.GetFileName() + ":" + (line != 0 ? std::to_string(line) + ":" : "") + " " +
                            (severity == Severity::Warning ? "warning: " : "") +
                            (place.group.empty() ? "" : "[" + place.group + "] ") +
                            (place.key.empty() ? "" : place.key + ": ") + text);
}

} // namespace calvane_program
