#pragma once

#include <CLI/CLI.hpp>
#include <functional>

namespace calvane_program {

/// Runs a program with commands and options; returns its exit status.
///
/// `define` adds what the program understands to its command line, which has --version already, and returns what is to be
/// done once that was parsed: it returns the exit status. What is wrong is said on standard error, behind the name: an unknown
/// command is named with the one that was most likely meant. A bad command line and std::invalid_argument are kBadInput, any
/// other exception kFailedWhileRunning.
int RunProgram(const char* name, const char* what, int argc, char** argv,
               const std::function<std::function<int()>(CLI::App&)>& define) noexcept;

/// Adds --bus, which selects the bus of the process.
void AddBusOption(CLI::App& program);

} // namespace calvane_program
