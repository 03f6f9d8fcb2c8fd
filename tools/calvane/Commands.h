#pragma once

#include <string>
#include <vector>

// The commands of the program. Each returns the exit status and prints what is wrong on the standard error stream.

namespace calvane_program {

/// Where a description comes from.
struct DescriptionSource {
    std::string file;              ///< An INI file, or a line for `launch`.
    bool isLine = false;           ///< `file` is a line as LaunchLine reads it.
    std::vector<std::string> sets; ///< GROUP.KEY=VALUE each, put into the description.
};

struct RunOptions {
    DescriptionSource source;
    std::string logLevels; ///< Empty: warnings and errors that the program does not print itself.
    std::string logFile;   ///< Empty: the standard error stream, unless `syslog` is set.
    bool syslog = false;
    double statsSeconds = 0; ///< 0: no statistics while running.
    std::string traceFile;   ///< Empty: no trace.
};
/// Runs the pipelines of a description to their end and prints how each ended.
int Run(const RunOptions& options);

/// Reports every fault of a description. `build`: also makes and connects every plugin, without starting any
/// pipeline.
int Check(const DescriptionSource& source, bool build);

/// Prints the graph of a description in the DOT language. Makes no plugin and loads no module.
int Graph(const DescriptionSource& source);

/// Prints the description itself, as an INI file.
int PrintIni(const DescriptionSource& source);

struct PluginsOptions {
    std::string type;   ///< Empty: list the types.
    std::string module; ///< Empty: the built-in types, and those of all modules when listing.
    bool json = false;
};
/// Lists plugin types, or prints what one type declares. Of a type of a module that declares nothing, one plugin is
/// made with every setting at its default, and released again.
int Plugins(const PluginsOptions& options);

} // namespace calvane_program
