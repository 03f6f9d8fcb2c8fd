#pragma once

#include <string>
#include <vector>

#include "calvane/Export.h"

namespace quarn::calvane {

/// The environment variable that lists further folders of modules, separated by colons.
inline constexpr char kPluginPathVariable[] = "CALVANE_PLUGIN_PATH";

/// The file that `t.plugin.module` names. An absolute path is used unchanged. Anything else is searched
/// in the folders that the environment variable CALVANE_PLUGIN_PATH lists, and then in the plugins folder:
/// "calvane/plugins" beside libcalvane, wherever that lies. The working folder counts only if it is listed.
///
/// Whoever can write a module's file decides what this process does. So a file is refused, and not passed
/// over for the next one, if it or the folder that holds it belongs to somebody who is neither root nor the
/// effective user, or may be written by a group or by all. A folder with the sticky bit may be: nobody can
/// exchange the files of others there.
///
/// Threads: any.
/// Errors:  Exception that names the module and every folder searched, or the file or folder that is refused
///          with its mode or owner.
CALVANE_API std::string FindModule(const std::string& module);

/// The paths of all files in these folders whose names end in ".so", in the order of the folders and in ascending
/// order in each; of files of one name the first one, which is what FindModule finds. Folders that cannot be read
/// are skipped. Whether the files are modules, and may be loaded, is not checked.
CALVANE_API std::vector<std::string> FindModules();

} // namespace quarn::calvane
