#pragma once

#include "calvane/graph/FormatException.h"
#include "calvane/graph/Sink.h"

namespace quarn::calvane {

/// Throws FormatException when `format` lacks what `sink` requires.
inline void AssertCompatible(const Sink& sink, const BufferFormat& format) {
    if (const char* const property = sink.GetFormat().FindMismatch(format)) {
        int offered = 0;
        const bool offers = format.Get(property, offered);
        throw FormatException(property, sink.GetFormat().GetInt(property),
                              offers ? std::optional(offered) : std::nullopt);
    }
}

} // namespace quarn::calvane
