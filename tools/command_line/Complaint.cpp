#include "command_line/Complaint.h"

#include <vector>

#include "calvane/config/NearestName.h"

namespace calvane_program {

std::string Complaint(const CLI::App& program, const CLI::ParseError& error) {
    const std::string& name = program.get_name();
    const std::vector<std::string> unknown = program.remaining();
    // The parser itself would only say that a command is required.
    if (!program.get_subcommands().empty() || unknown.empty() || unknown[0][0] == '-') {
        return name + ": " + error.what() + " (see " + name + " --help)";
    }
    std::vector<std::string> commands;
    for (const CLI::App* command : program.get_subcommands({})) {
        commands.push_back(command->get_name());
    }
    return name + ": unknown command " + unknown[0] + quarn::calvane::SuggestName(unknown[0], commands) +
           " (see " + name + " --help)";
}

} // namespace calvane_program
