#pragma once

#include <cstdarg>
#include <string>

#include "quarn/Export.h"

namespace quarn::osa {

/// The text that vprintf would print, of any length.
[[gnu::format(printf, 1, 0)]] QUARN_API std::string FormatTextV(const char* format, va_list arguments);

/// The text that printf would print, of any length.
[[gnu::format(printf, 1, 2)]] QUARN_API std::string FormatText(const char* format, ...);

/// The system's text for an errno value, for example "No space left on device". Safe from any thread.
QUARN_API std::string ErrnoText(int code);

} // namespace quarn::osa
