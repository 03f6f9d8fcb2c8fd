#pragma once

#include <functional>
#include <set>
#include <string>
#include <utility>

#include "calvane/config/DescriptionCheck.h"
#include "calvane/config/DescriptionGraph.h"
#include "calvane/config/PluginTypes.h"
#include "quarn/core/IniFile.h"

namespace calvane_program {

/// Writes one line to the standard error stream.
void PrintError(const std::string& line);

enum class Severity { Warning, Error };
/// The same, whatever the severity.
void PrintLine(Severity severity, const std::string& line);

/// A description, its graph, and the diagnostics about it. Prints each, or gives it to a reporter, as
/// "FILE:LINE: [group] key: text" as far as the place is known.
class CheckedDescription {
public:
    using Reporter = std::function<void(Severity, const std::string& line)>;

    explicit CheckedDescription(quarn::core::IniFile ini, Reporter reporter = &PrintLine);
    CheckedDescription(const CheckedDescription&) = delete;
    CheckedDescription& operator=(const CheckedDescription&) = delete;

    /// Checks the description and prints what is found. Returns whether it can be loaded.
    bool Check();
    /// Prints settings that no plugin has read, unless Check has reported them already.
    void WarnAboutUnused(const std::vector<quarn::calvane::DescriptionPlace>& settings);

    void PrintError(const quarn::calvane::DescriptionPlace& place, const std::string& text);
    void PrintWarning(const quarn::calvane::DescriptionPlace& place, const std::string& text);
    unsigned int GetErrorCount() const { return errors_; }
    unsigned int GetWarningCount() const { return warnings_; }

    const quarn::core::IniFile& GetIni() const { return ini_; }
    const quarn::calvane::DescriptionGraph& GetGraph() const { return graph_; }
    quarn::calvane::PluginTypes& GetTypes() { return types_; }

private:
    void Report(Severity severity, const quarn::calvane::DescriptionPlace& place, const std::string& text);

    const Reporter reporter_;
    const quarn::core::IniFile ini_;
    const quarn::calvane::Description description_;
    const quarn::calvane::DescriptionGraph graph_;
    quarn::calvane::PluginTypes types_;
    std::set<std::pair<std::string, std::string>> places_; // Of what was printed.
    unsigned int errors_ = 0;
    unsigned int warnings_ = 0;
};

} // namespace calvane_program
