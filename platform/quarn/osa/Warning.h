#pragma once

#include "quarn/Export.h"

namespace quarn::osa {

/// Receives the warnings of this layer about faults in spite of which it continues. The text has no line end.
using WarningHandler = void (*)(const char* text);

/// Replaces the handler for the whole process. The first one writes to the standard error stream; the logger,
/// which stands above this layer, puts itself in its place.
QUARN_API void SetWarningHandler(WarningHandler handler);

/// Hands `text` to the handler.
QUARN_API void Warn(const char* text);

} // namespace quarn::osa
