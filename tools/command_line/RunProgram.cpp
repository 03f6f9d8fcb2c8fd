#include "command_line/RunProgram.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "calvane/Version.h"
#include "calvane/config/NearestName.h"
#include "command_line/ExitStatus.h"

namespace calvane_program {
namespace {

/// What is wrong with a command line that could not be parsed.
std::string Complaint(const CLI::App& program, const CLI::ParseError& error) {
    const std::string hint = " (see " + program.get_name() + " --help)";
    const std::vector<std::string> unknown = program.remaining();
    // The parser itself would only say that a command is required.
    if (!program.get_subcommands().empty() || unknown.empty() || unknown[0][0] == '-') {
        return error.what() + hint;
    }
    std::vector<std::string> commands;
    for (const CLI::App* command : program.get_subcommands({})) {
        commands.push_back(command->get_name());
    }
    return "unknown command " + unknown[0] + quarn::calvane::SuggestName(unknown[0], commands) + hint;
}

int Run(CLI::App& program, int argc, char** argv,
        const std::function<std::function<int()>(CLI::App&)>& define) {
    program.set_version_flag("--version", program.get_name() + " " + quarn::calvane::kVersion);
    const std::function<int()> run = define(program);
    try {
        program.parse(argc, argv);
    } catch (const CLI::Success& answer) { // --help and --version
        return program.exit(answer);
    } catch (const CLI::ParseError& error) {
        throw std::invalid_argument(Complaint(program, error));
    }
    return run();
}

int Fail(const char* name, const std::exception& problem, int status) noexcept {
    std::fprintf(stderr, "%s: %s\n", name, problem.what());
    return status;
}

} // namespace

int RunProgram(const char* name, const char* what, int argc, char** argv,
               const std::function<std::function<int()>(CLI::App&)>& define) noexcept {
    try {
        CLI::App program(what, name);
        return Run(program, argc, argv, define);
    } catch (const std::invalid_argument& problem) {
        return Fail(name, problem, kBadInput);
    } catch (const std::exception& problem) {
        return Fail(name, problem, kFailedWhileRunning);
    }
}

void AddBusOption(CLI::App& program) {
    program
        .add_option_function<std::string>(
            "--bus", [](const std::string& bus) { setenv("DRENN_BUS", bus.c_str(), 1); },
            "session, system or an address of D-Bus; as DRENN_BUS says without it")
        ->type_name("BUS");
}

} // namespace calvane_program
