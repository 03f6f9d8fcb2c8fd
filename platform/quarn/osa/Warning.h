#pragma once

#include "quarn/Export.h"

namespace quarn::osa {

/// Receives what this layer has to say when it goes on in spite of a fault. The text has no line end.
using WarningHandler = void (*)(const char* text);

/// Replaces the handler for the whole process. The first one writes to the standard error stream; the logger,
/// which stands above this layer, puts itself in its place.
QUARN_API void SetWarningHandler(WarningHandler handler);

/// Hands `text` to the handler.
QUARN_API void Warn(const char* text);

} // namespace quarn::osa
