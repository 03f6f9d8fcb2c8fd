#include <CLI/CLI.hpp>
#include <memory>

#include "Commands.h"
#include "command_line/ExitStatus.h"
#include "command_line/RunProgram.h"
#include "pipelines/CheckedDescription.h"

namespace {

using namespace calvane_program;

void DefineSource(CLI::App& command, DescriptionSource& source) {
    command.add_option("FILE", source.file, "The description (INI)")->required();
    command.add_option("--set", source.sets, "Set a value of the description")
        ->type_name("GROUP.KEY=VALUE")
        ->take_all();
}

void DefineRunning(CLI::App& command, RunOptions& options) {
    command.add_option(
        "--log", options.logLevels,
        "Levels by logger name, e.g. QueuePlugin=debug,*=warning; one of off, error, warning, "
        "information, debug, trace. Without it: warnings, and errors that are not printed anyway");
    CLI::Option* const logFile =
        command.add_option("--log-file", options.logFile, "Append the log to this file");
    command.add_flag("--syslog", options.syslog, "Send the log to syslog")->excludes(logFile);
    command
        .add_option("--stats", options.statsSeconds,
                    "Print every so many seconds what each plugin and queue did")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.1, 86400.0));
    command
        .add_option("--trace", options.traceFile, "Write a timeline of every push to this file, for Perfetto")
        ->type_name("FILE");
}

void DefineRun(CLI::App& program, RunOptions& options) {
    CLI::App* const run = program.add_subcommand("run", "Run the pipelines of a description to their end");
    DefineSource(*run, options.source);
    DefineRunning(*run, options);
    run->footer(
        "SIGINT and SIGTERM stop all pipelines in order; a second one ends the process at once.\n"
        "Exit status: 0 done, 1 failed while running, 2 bad description or command line.\n"
        "Examples:\n"
        "  calvane run camera.ini\n"
        "  calvane run camera.ini --set reader.filename=other.bin\n"
        "  calvane run camera.ini --stats 2 --trace camera.json\n"
        "  calvane run camera.ini --log 'PipelineLoader=debug,*=information' --log-file camera.log");
}

void DefineLaunch(CLI::App& program, RunOptions& options, std::vector<std::string>& line, bool& ini) {
    CLI::App* const launch = program.add_subcommand("launch", "Run pipelines that are written in one line");
    launch->add_option("LINE", line, "TYPE [KEY=VALUE ...] ! TYPE [KEY=VALUE ...] ! ...")->required();
    launch->add_flag("--ini", ini, "Print the line as a description, and run nothing");
    DefineRunning(*launch, options);
    launch->footer(
        "name=NAME names a plugin; a chain that begins with NAME. or NAME.OUTPUT goes on from there.\n"
        "Exit status: as that of run.\n"
        "Examples:\n"
        "  calvane launch 'FileSource filename=a.bin ! QueuePlugin ! FileSink filename=b.bin'\n"
        "  calvane launch 'FileSource name=a filename=a.bin ! FileSink filename=b.bin  a. ! FileSink "
        "filename=c.bin'");
}

void DefineCheck(CLI::App& program, DescriptionSource& source, bool& build) {
    CLI::App* const check = program.add_subcommand("check", "Report every error in a description");
    DefineSource(*check, source);
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
        program.add_subcommand("plugins", "List plugin types, or show the settings of one");
    plugins->add_option("TYPE", options.type, "Show this type");
    plugins->add_option("--module", options.module, "Of this module, as t.plugin.module names it")
        ->type_name("PATH");
    plugins->add_flag("--json", options.json, "Print JSON");
    plugins->footer(
        "Listing loads nothing. Of a type that declares nothing, one plugin is made without any setting.\n"
        "Exit status: 0 done, 2 no such type or module.\n"
        "Examples:\n"
        "  calvane plugins\n"
        "  calvane plugins FileSource\n"
        "  calvane plugins --module camera.so --json");
}

void DefineGraph(CLI::App& program, DescriptionSource& source) {
    CLI::App* const graph = program.add_subcommand("graph", "Print the graph of a description (DOT)");
    DefineSource(*graph, source);
    graph->footer(
        "Makes no plugin and loads no module. There is a frame for each thread.\n"
        "Exit status: 0 done, 2 bad description.\n"
        "Example:\n"
        "  calvane graph camera.ini | dot -Tsvg -o camera.svg");
}

int Launch(RunOptions options, const std::vector<std::string>& line, bool ini) {
    options.source.isLine = true;
    for (const std::string& word : line) {
        options.source.file += (options.source.file.empty() ? "" : " ") + word;
    }
    return ini ? PrintIni(options.source) : Run(options);
}

struct Commands {
    RunOptions run;
    RunOptions launch;
    std::vector<std::string> line;
    bool ini = false;
    DescriptionSource checked;
    bool build = false;
    PluginsOptions plugins;
    DescriptionSource drawn;
};

void Define(CLI::App& program, Commands& commands) {
    program.require_subcommand(1);
    program.footer("Examples:\n  calvane check camera.ini\n  calvane run camera.ini\n  calvane run --help");
    DefineRun(program, commands.run);
    DefineLaunch(program, commands.launch, commands.line, commands.ini);
    DefineCheck(program, commands.checked, commands.build);
    DefinePlugins(program, commands.plugins);
    DefineGraph(program, commands.drawn);
}

int RunCommand(const CLI::App& program, const Commands& commands) {
    if (program.got_subcommand("run")) {
        return Run(commands.run);
    }
    if (program.got_subcommand("launch")) {
        return Launch(commands.launch, commands.line, commands.ini);
    }
    if (program.got_subcommand("check")) {
        return Check(commands.checked, commands.build);
    }
    return program.got_subcommand("graph") ? Graph(commands.drawn) : Plugins(commands.plugins);
}

} // namespace

int main(int argc, char** argv) {
    return RunProgram("calvane", "Runs media pipelines that are described in an INI file.", argc, argv,
                      [](CLI::App& program) {
                          const auto commands = std::make_shared<Commands>();
                          Define(program, *commands);
                          return [&program, commands] { return RunCommand(program, *commands); };
                      });
}
