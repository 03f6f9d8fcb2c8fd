#pragma once

namespace calvane_program {

// Exit status of the programs.
inline constexpr int kDone = 0;
inline constexpr int kFailedWhileRunning = 1;
inline constexpr int kBadInput = 2; ///< A bad command line or description.

} // namespace calvane_program
