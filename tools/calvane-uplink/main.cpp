#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <memory>

#include "Uplink.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "command_line/Complaint.h"
#include "pipelines/ExitStatus.h"
#include "pipelines/SignalWatcher.h"
#include "quarn/core/Logger.h"

namespace {

using namespace calvane_uplink;

struct Options {
    UplinkOptions uplink;
    std::string bus;
    std::string logLevels = "*=information";
    bool check = false;
};

void Define(CLI::App& program, Options& options) {
    program.set_version_flag("--version", std::string("calvane-uplink ") + quarn::calvane::kVersion);
    program.add_option("FILE", options.uplink.policyFile, "The policy (INI): what is copied, and where to")
        ->capture_default_str();
    program
        .add_option("--bus", options.bus,
                    "session, system or an address of D-Bus; as DRENN_BUS says without it")
        ->type_name("BUS");
    program
        .add_option("--metrics", options.uplink.metricsFile, "Keep the figures in this file, for Prometheus")
        ->type_name("FILE");
    program.add_option("--log", options.logLevels, "Levels by logger name, as with calvane run")
        ->capture_default_str();
    program.add_flag("--check", options.check, "Say what is wrong with the policy, and end");
    program.footer(
        "Copies what the recorder has into the stream of this device in NATS JetStream. The card is the "
        "buffer: it "
        "goes on where the stream ends, after any outage.\n"
        "A policy that changes is taken over; SIGHUP does so at once.\n"
        "Exit status: 0 done, 1 failed while running, 2 bad policy or command line.\n"
        "Example:\n"
        "  calvane-uplink --check /etc/calvane/uplink.ini && calvane-uplink");
}

int Serve(const Options& options) {
    std::unique_ptr<Uplink> uplink;
    // First: it makes no thread but sees all signals.
    calvane_program::SignalWatcher signals([&uplink] { uplink->Reload(); });
    uplink = std::make_unique<Uplink>(options.uplink);
    if (options.check) {
        return calvane_program::kDone;
    }
    signals.Watch([&uplink] { uplink->Stop(); });
    uplink->Run();
    signals.End();
    return calvane_program::kDone;
}

int RunProgram(int argc, char** argv) {
    CLI::App program("Copies the recording into the streams of a fleet.", "calvane-uplink");
    Options options;
    Define(program, options);
    try {
        program.parse(argc, argv);
    } catch (const CLI::Success& answer) { // --help and --version
        return program.exit(answer);
    } catch (const CLI::ParseError& error) {
        std::cerr << calvane_program::Complaint(program, error) << "\n";
        return calvane_program::kBadInput;
    }
    if (!options.bus.empty()) {
        setenv("DRENN_BUS", options.bus.c_str(), 1);
    }
    quarn::core::Logger::SetLevels(options.logLevels);
    try {
        return Serve(options);
    } catch (const std::exception& problem) {
        std::cerr << "calvane-uplink: " << problem.what() << "\n";
        return calvane_program::kBadInput;
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        return RunProgram(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "calvane-uplink: " << error.what() << "\n";
        return calvane_program::kFailedWhileRunning;
    }
}
