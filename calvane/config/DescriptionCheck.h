#pragma once

#include <string>
#include <vector>

#include "calvane/Export.h"

namespace quarn::core {
class IniFile;
}

namespace quarn::calvane {

class DescriptionGraph;
class PluginTypes;

/// One fault, or doubtful place, of a description.
struct DescriptionDiagnostic {
    unsigned int line; ///< Of the description; 0 when what is missing has no line.
    bool isError;      ///< Otherwise a warning: the description can be loaded.
    std::string group;
    std::string key; ///< Empty when the group as a whole is meant.
    std::string text;
};

/// Reads a description without making a plugin or loading a module, and reports every fault in it, in the
/// order of the lines.
///
/// Errors: missing groups, keys and values, plugins that are their own successors, values of the framework's
/// own keys that do not parse, unknown types, modules that cannot be found or do not fit, as far as their files
/// show, plugins that more threads would call than they allow, and whatever contradicts the declaration of a
/// plugin type: settings that are missing, of the wrong kind or out of range, outputs and inputs that plugins
/// of this type do not have. (Loading reads numbers less strictly; what is no number is a mistake all the same.)
///
/// Warnings: groups that nothing refers to, keys that neither the framework nor the plugin type knows, and
/// thread priorities that do not exist.
CALVANE_API std::vector<DescriptionDiagnostic> CheckDescription(const core::IniFile& ini);
/// The same for a graph at hand. `types` is asked about plugin types.
CALVANE_API std::vector<DescriptionDiagnostic> CheckDescription(const DescriptionGraph& graph,
                                                                PluginTypes& types);

} // namespace quarn::calvane
