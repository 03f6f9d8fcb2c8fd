#pragma once

namespace calvane_program {

// What the program tells its caller.
inline constexpr int kDone = 0;
inline constexpr int kFailedWhileRunning = 1;
inline constexpr int kBadInput = 2; ///< A bad command line or description.

} // namespace calvane_program
