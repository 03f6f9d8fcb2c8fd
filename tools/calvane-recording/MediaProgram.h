#pragma once

namespace calvane_recording {

/// Becomes the program that knows media, with the same command line. It is one of its own, so that a device without FFmpeg
/// has all other commands.
///
/// Errors: std::runtime_error that says what is to be installed.
[[noreturn]] void BecomeMediaProgram(char** argv);

} // namespace calvane_recording
