#pragma once

#include <string>
#include <vector>

#include "calvane/Export.h"

namespace quarn::core {
class IniFile;
}

namespace quarn::calvane {

/// One thing that is wrong, or doubtful, in a description.
struct DescriptionFinding {
    unsigned int line; ///< Of the description; 0 when what is missing has no line.
    bool isError;      ///< Otherwise a warning: the description can be loaded.
    std::string group;
    std::string key; ///< Empty when the group as a whole is meant.
    std::string text;
};

/// Reads a description without making a plugin or loading a module, and tells all that is wrong with it, in
/// the order of the lines: groups, keys and values that are missing, unknown types, modules that cannot be
/// found or do not fit, as far as their files tell, plugins that are their own successors, values of the
/// framework's own keys that do not parse; and as warnings, groups that nothing refers to, keys that the
/// framework does not know, and plugins that head two pipelines.
CALVANE_API std::vector<DescriptionFinding> CheckDescription(const core::IniFile& ini);

} // namespace quarn::calvane
