#include "calvane/CheckCommand.h"

#include <exception>
#include <iostream>

#include "calvane/DescribedPipelines.h"
#include "calvane/ExitStatus.h"
#include "calvane/Findings.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/LogCapture.h"

namespace calvane_program {

namespace {

// Where the setting stands that a warning calls unused; nowhere for other warnings.
Place FindUnusedSetting(const quarn::core::IniFile& ini, const std::string& warning) {
    for (const std::string& group : ini.GetGroups()) {
        for (const auto& entry : ini[group]) {
            if (warning == group + ": Setting " + entry.first + " was never used.") {
                return {group, entry.first};
            }
        }
    }
    return {};
}

// What the plugins and the loader warn about while they are made belongs to the findings; their errors come
// as exceptions.
bool Build(const quarn::core::IniFile& ini, unsigned int& warnings) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Warning);
    const bool good = DescribedPipelines(ini).Load();
    for (const auto& line : log.GetLines()) {
        if (line.level == quarn::core::LogLevel::Warning) {
            PrintError(Locate(ini, FindUnusedSetting(ini, line.text), line.text, "warning: "));
            ++warnings;
        }
    }
    return good;
}

} // namespace

int Check(const std::string& file, bool build) {
    try {
        const quarn::core::IniFile ini(file);
        unsigned int warnings = 0;
        unsigned int errors = PrintFindings(ini, warnings);
        if (errors == 0 && build && !Build(ini, warnings)) {
            ++errors;
        }
        std::cout << file << ": " << errors << (errors == 1 ? " error, " : " errors, ") << warnings
                  << (warnings == 1 ? " warning" : " warnings") << std::endl;
        return errors == 0 ? kDone : kBadInput;
    } catch (const std::exception& error) {
        PrintError(error.what());
        return kBadInput;
    }
}

} // namespace calvane_program
