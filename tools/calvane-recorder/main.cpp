#include <CLI/CLI.hpp>
#include <cstdlib>

#include "RecorderHost.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "pipelines/CheckedDescription.h"
#include "pipelines/ExitStatus.h"
#include "quarn/core/Logger.h"

namespace {

using namespace calvane_program;
using quarn::core::Logger;

struct Options {
    calvane_recorder::HostOptions host;
    std::string bus;
    std::string settings;
    std::string logLevels = "IniPluginConfig=warning,*=information";
    std::string logFile;
    bool syslog = false;
};

void Define(CLI::App& program, Options& options) {
    program.set_version_flag("--version", std::string("calvane-recorder ") + quarn::calvane::kVersion);
    program.add_option("FILE", options.host.file, "The description (INI) of the pipelines that record");
    program.add_option("--root", options.host.root, "Where the card is mounted")
        ->type_name("DIR")
        ->capture_default_str();
    program
        .add_option("--bus", options.bus,
                    "session, system or an address of D-Bus; as DRENN_BUS says without it")
        ->type_name("BUS");
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
    if (!options.bus.empty()) {
        setenv("DRENN_BUS", options.bus.c_str(), 1);
    }
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

int RunProgram(int argc, char** argv) {
    CLI::App program("Records pipelines on the device's card and serves the recording.", "calvane-recorder");
    Options options;
    Define(program, options);
    try {
        program.parse(argc, argv);
    } catch (const CLI::Success& answer) { // --help and --version
        return program.exit(answer);
    } catch (const CLI::ParseError& error) {
        PrintError(std::string("calvane-recorder: ") + error.what() + " (see calvane-recorder --help)");
        return kBadInput;
    }
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
    try {
        return RunProgram(argc, argv);
    } catch (const std::exception& error) {
        PrintError(std::string("calvane-recorder: ") + error.what());
        return kFailedWhileRunning;
    }
}
