#include <malloc.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include "WebServer.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "command_line/Complaint.h"
#include "pipelines/ExitStatus.h"

namespace {

using namespace calvane_web;

void Define(CLI::App& program, WebOptions& options, std::string& bus) {
    program.set_version_flag("--version", std::string("calvane-web ") + quarn::calvane::kVersion);
    program.add_option("--listen", options.listen, "Where to listen; port 0 for any free one")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    program.add_option("--bus", bus, "session, system or an address of D-Bus; as DRENN_BUS says without it")
        ->type_name("BUS");
    program.add_option("--page", options.page, "The page's files; as CALVANE_WEB_PAGE says without it")
        ->type_name("DIR");
}

int RunProgram(int argc, char** argv) {
    CLI::App program("Serves a page that shows what the device has recorded.", "calvane-web");
    WebOptions options;
    std::string bus;
    Define(program, options, bus);
    try {
        program.parse(argc, argv);
    } catch (const CLI::Success& answer) { // --help and --version
        return program.exit(answer);
    } catch (const CLI::ParseError& error) {
        std::cerr << calvane_program::Complaint(program, error) << "\n";
        return calvane_program::kBadInput;
    }
    if (!bus.empty()) {
        setenv("DRENN_BUS", bus.c_str(), 1);
    }
    return RunWebServer(options);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return RunProgram(argc, argv);
    } catch (const std::invalid_argument& error) {
        std::cerr << "calvane-web: " << error.what() << "\n";
        return calvane_program::kBadInput;
    } catch (const std::exception& error) {
        std::cerr << "calvane-web: " << error.what() << "\n";
        return calvane_program::kFailedWhileRunning;
    }
}
