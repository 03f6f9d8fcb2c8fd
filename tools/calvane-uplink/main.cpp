#include <CLI/CLI.hpp>
#include <memory>
#include <stdexcept>

#include "Uplink.h"
#include "command_line/ExitStatus.h"
#include "command_line/RunProgram.h"
#include "pipelines/SignalWatcher.h"
#include "quarn/core/Logger.h"

namespace {

using namespace calvane_uplink;

struct Options {
    UplinkOptions uplink;
    std::string logLevels = "*=information";
    bool check = false;
};

void Define(CLI::App& program, Options& options) {
    program.add_option("FILE", options.uplink.policyFile, "The policy (INI): what is copied, and where to")
        ->capture_default_str();
    calvane_program::AddBusOption(program);
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
    try {
        if (options.check) {
            const calvane_uplink::Policy policy(options.uplink.policyFile); // No bus and no server is needed.
            return calvane_program::kDone;
        }
        uplink = std::make_unique<Uplink>(options.uplink);
    } catch (const std::exception& problem) {
        throw std::invalid_argument(problem.what()); // Whatever is wrong with the policy.
    }
    signals.Watch([&uplink] { uplink->Stop(); });
    uplink->Run();
    signals.End();
    return calvane_program::kDone;
}

} // namespace

int main(int argc, char** argv) {
    return calvane_program::RunProgram("calvane-uplink", "Copies the recording into the streams of a fleet.",
                                       argc, argv, [](CLI::App& program) {
                                           const auto options = std::make_shared<Options>();
                                           Define(program, *options);
                                           return [options] {
                                               quarn::core::Logger::SetLevels(options->logLevels);
                                               return Serve(*options);
                                           };
                                       });
}
