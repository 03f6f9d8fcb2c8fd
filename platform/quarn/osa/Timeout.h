#pragma once

namespace quarn::osa {

/// The time-out, in milliseconds, that never passes: all bits set.
inline constexpr unsigned int kNoTimeout = ~0u;

} // namespace quarn::osa
