#include <iostream>

#include "Commands.h"
#include "Source.h"
#include "command_line/ExitStatus.h"
#include "pipelines/DescribedPipelines.h"
#include "quarn/core/LogCapture.h"

namespace calvane_program {

namespace {

// What plugins warn about while they are made belongs to the diagnostics. What the framework's own loggers say is
// printed with its place anyway.
void Build(CheckedDescription& description) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Warning);
    DescribedPipelines(description).Load();
    for (const auto& line : log.GetLines()) {
        if (line.level == quarn::core::LogLevel::Warning && line.logger != "IniPluginConfig") {
            const bool isPlugin = description.GetIni().HasGroup(line.logger);
            description.PrintWarning({isPlugin ? line.logger : "", ""}, line.text);
        }
    }
}

} // namespace

int Check(const DescriptionSource& source, bool build) {
    try {
        CheckedDescription description(ReadDescription(source));
        if (description.Check() && build) {
            Build(description);
        }
        const unsigned int errors = description.GetErrorCount();
        const unsigned int warnings = description.GetWarningCount();
        std::cout << description.GetIni().GetFileName() << ": " << errors
                  << (errors == 1 ? " error, " : " errors, ") << warnings
                  << (warnings == 1 ? " warning" : " warnings") << std::endl;
        return errors == 0 ? kDone : kBadInput;
    } catch (const std::exception& error) {
        PrintError(error.what());
        return kBadInput;
    }
}

int PrintIni(const DescriptionSource& source) {
    try {
        std::cout << (source.isLine && source.sets.empty() ? ToIni(source.file)
                                                           : ToText(ReadDescription(source)))
                  << std::flush;
        return kDone;
    } catch (const std::exception& error) {
        PrintError(error.what());
        return kBadInput;
    }
}

} // namespace calvane_program
