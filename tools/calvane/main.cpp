#include <CLI/CLI.hpp>
#include <iostream>

#include "calvane/CheckCommand.h"
#include "calvane/ExitStatus.h"
#include "calvane/Findings.h"
#include "calvane/GraphCommand.h"
#include "calvane/PluginsCommand.h"
#include "calvane/RunCommand.h"
#include "calvane/runtime/CalvaneEnv.h"

namespace {

using namespace calvane_program;

void DefineRun(CLI::App& program, RunOptions& options) {
    CLI::App* const run = program.add_subcommand("run", "Run the pipelines of a description to their end");
    run->add_option("FILE", options.file, "The description (INI)")->required();
    run->add_option("--log", options.logLevels,
                    "Levels by logger name, e.g. QueuePlugin=debug,*=warning; one of off, error, warning, "
                    "information, debug, trace")
        ->capture_default_str();
    CLI::Option* const logFile =
        run->add_option("--log-file", options.logFile, "Append the log to this file");
    run->add_flag("--syslog", options.syslog, "Send the log to syslog")->excludes(logFile);
    run->add_option("--stats", options.statsSeconds,
                    "Print every so many seconds what each plugin and queue did")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.1, 86400.0));
    run->add_option("--trace", options.traceFile, "Write a timeline of every push to this file, for Perfetto")
        ->type_name("FILE");
    run->footer(
        "SIGINT and SIGTERM stop all pipelines in order; a second one ends the process at once.\n"
        "Exit status: 0 done, 1 failed while running, 2 bad description or command line.\n"
        "Examples:\n"
        "  calvane run camera.ini\n"
        "  calvane run camera.ini --stats 2 --trace camera.json\n"
        "  calvane run camera.ini --log 'PipelineLoader=debug,*=information' --log-file camera.log");
}

void DefineCheck(CLI::App& program, std::string& file, bool& build) {
    CLI::App* const check = program.add_subcommand("check", "Tell all that is wrong with a description");
    check->add_option("FILE", file, "The description (INI)")->required();
    check->add_flag("--build", build, "Also make and connect every plugin, without starting a pipeline");
    check->footer(
        "Makes no plugin and loads no module unless told to.\n"
        "Exit status: 0 can be loaded (there may be warnings), 2 cannot.\n"
        "Examples:\n"
        "  calvane check camera.ini\n"
        "  calvane check --build camera.ini");
}

void DefinePlugins(CLI::App& program, PluginsOptions& options) {
    CLI::App* const plugins =
        program.add_subcommand("plugins", "List plugin types, or tell what one takes and gives");
    plugins->add_option("TYPE", options.type, "Tell of this type");
    plugins->add_option("--module", options.module, "Of this module, as t.plugin.module names it")
        ->type_name("PATH");
    plugins->add_flag("--json", options.json, "Print JSON");
    plugins->footer(
        "Listing loads nothing. To tell of a type, one plugin is made without any setting, and let go "
        "again.\n"
        "Exit status: 0 done, 2 no such type or module.\n"
        "Examples:\n"
        "  calvane plugins\n"
        "  calvane plugins FileSource\n"
        "  calvane plugins --module camera.so --json");
}

void DefineGraph(CLI::App& program, std::string& file) {
    CLI::App* const graph = program.add_subcommand("graph", "Draw the graph of a description (DOT)");
    graph->add_option("FILE", file, "The description (INI)")->required();
    graph->footer(
        "Makes no plugin and loads no module. There is a frame for each thread.\n"
        "Exit status: 0 done, 2 bad description.\n"
        "Example:\n"
        "  calvane graph camera.ini | dot -Tsvg -o camera.svg");
}

// The parser itself would only say that a command is required.
std::string Complaint(const CLI::App& program, const CLI::ParseError& error, int argc, char** argv) {
    if (program.get_subcommands().empty() && argc > 1 && argv[1][0] != '-') {
        return std::string("unknown command ") + argv[1];
    }
    return error.what();
}

int RunProgram(int argc, char** argv) {
    CLI::App program("Runs media pipelines that are described in an INI file.", "calvane");
    program.set_version_flag("--version", std::string("calvane ") + quarn::calvane::kVersion);
    program.require_subcommand(1);
    program.footer("Examples:\n  calvane check camera.ini\n  calvane run camera.ini\n  calvane run --help");

    RunOptions runOptions;
    DefineRun(program, runOptions);
    std::string checkFile;
    bool build = false;
    DefineCheck(program, checkFile, build);
    PluginsOptions pluginsOptions;
    DefinePlugins(program, pluginsOptions);
    std::string graphFile;
    DefineGraph(program, graphFile);

    try {
        program.parse(argc, argv);
    } catch (const CLI::Success& answer) { // --help and --version
        return program.exit(answer);
    } catch (const CLI::ParseError& error) {
        PrintError("calvane: " + Complaint(program, error, argc, argv) + " (see calvane --help)");
        return kBadInput;
    }
    if (program.got_subcommand("run")) {
        return Run(runOptions);
    }
    if (program.got_subcommand("check")) {
        return Check(checkFile, build);
    }
    return program.got_subcommand("graph") ? Graph(graphFile) : Plugins(pluginsOptions);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return RunProgram(argc, argv);
    } catch (const std::exception& error) {
        PrintError(std::string("calvane: ") + error.what());
        return kFailedWhileRunning;
    }
}
