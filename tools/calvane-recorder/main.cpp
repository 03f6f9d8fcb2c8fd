#include <CLI/CLI.hpp>
#include <cstdlib>

#include "RecorderHost.h"
#include "command_line/ExitStatus.h"
#include "command_line/RunProgram.h"
#include "pipelines/CheckedDescription.h"
#include "quarn/core/Logger.h"

namespace {

using namespace calvane_program;
using quarn::core::Logger;

struct Options {
    calvane_recorder::HostOptions host;
    std::string settings;
    std::string logLevels = "IniPluginConfig=warning,*=information";
    std::string logFile;
    bool syslog = false;
};

void Define(CLI::App& program, Options& options) {
    program.add_option("FILE", options.host.file, "The description (INI) of the pipelines that record");
    program.add_option("--root", options.host.root, "Where the card is mounted")
        ->type_name("DIR")
        ->capture_default_str();
    AddBusOption(program);
    program
        .add_option("--settings", options.settings,
                    "The settings database; as DRENN_SETTINGS says without it")
        ->type_name("FILE");
    program.add_option("--log", options.logLevels, "Levels by logger name, as with calvane run")
        ->capture_default_str();
    CLI::Option* const logFile =
        program.add_option("--log-file", options.logFile, "Append the log to this file");
    program.add_flag("--syslog", options.syslog, "Send the log to syslog")->excludes(logFile);
    program.footer(
        "Records what the pipelines send to their RecordingSinks, and answers the services "
        "recording_information and "
        "recording_data_access. Without a card it only answers.\n"
        "SIGTERM and SIGINT end it in order, which takes about two seconds; a second one ends it at once.\n"
        "SIGHUP makes it open its log file anew and take over a description that has changed.\n"
        "Exit status: 0 done, 1 failed while running, 2 bad description or command line.\n"
        "Examples:\n"
        "  calvane-recorder camera.ini\n"
        "  mkdir card && dbus-run-session calvane-recorder --root card --settings settings.db camera.ini");
}

void Apply(const Options& options) {
    if (!options.settings.empty()) {
        setenv("DRENN_SETTINGS", options.settings.c_str(), 1);
    }
    Logger::SetLevels(options.logLevels);
    if (options.syslog) {
        Logger::LogToSyslog("calvane-recorder");
    } else if (!options.logFile.empty()) {
        Logger::LogToFile(options.logFile);
    }
}

int Record(const Options& options) {
    try {
        calvane_recorder::RecorderHost host(options.host); // First: it makes no thread but sees all signals.
        Apply(options);
        return host.Run();
    } catch (const std::exception& error) {
        calvane_recorder::ReportError(error.what());
        return kBadInput;
    }
}

} // namespace

int main(int argc, char** argv) {
    return RunProgram("calvane-recorder", "Records pipelines on the device's card and serves the recording.",
                      argc, argv, [](CLI::App& program) {
                          const auto options = std::make_shared<Options>();
                          Define(program, *options);
                          return [options] { return Record(*options); };
                      });
}
