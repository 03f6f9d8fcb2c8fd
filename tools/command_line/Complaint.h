#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace calvane_program {

/// What is wrong with a command line that `program` could not parse: an unknown command is named, with the one that
/// was most likely meant.
std::string Complaint(const CLI::App& program, const CLI::ParseError& error);

} // namespace calvane_program
