#include "pipelines/CheckedDescription.h"

#include <iostream>

namespace calvane_program {

using quarn::calvane::DescriptionPlace;

void PrintError(const std::string& line) {
    std::cerr << line + "\n" << std::flush;
}

CheckedDescription::CheckedDescription(const std::string& path)
    : CheckedDescription(quarn::core::IniFile(path)) {}

CheckedDescription::CheckedDescription(quarn::core::IniFile ini)
    : ini_(std::move(ini)), description_(ini_), graph_(description_) {}

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
    Print(place, "", text);
}

void CheckedDescription::PrintWarning(const DescriptionPlace& place, const std::string& text) {
    ++warnings_;
    Print(place, "warning: ", text);
}

void CheckedDescription::Print(const DescriptionPlace& place, const std::string& mark,
                               const std::string& text) {
    places_.emplace(place.group, place.key);
    const unsigned int line = description_.GetLine(place);
    calvane_program::PrintError(ini_.GetFileName() + ":" + (line != 0 ? std::to_string(line) + ":" : "") +
                                " " + mark + (place.group.empty() ? "" : "[" + place.group + "] ") +
                                (place.key.empty() ? "" : place.key + ": ") + text);
}

} // namespace calvane_program
