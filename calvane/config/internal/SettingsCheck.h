#pragma once

#include <vector>

#include "calvane/config/DescriptionGraph.h"
#include "calvane/config/PluginDeclaration.h"

namespace quarn::calvane {

/// Where the settings of a plugin contradict what its type declares: settings that are missing, not of their
/// kind or out of range. Settings that are not declared are ignored.
std::vector<DescriptionFault> FindSettingFaults(const DescribedPlugin& plugin,
                                                const PluginDeclaration& declaration,
                                                const core::IniFile& ini);

} // namespace quarn::calvane
