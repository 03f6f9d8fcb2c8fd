#pragma once

#include "calvane/graph/Sink.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

/// Throws Exception "Incompatible formats" when `format` lacks what `sink` requires.
inline void AssertCompatible(const Sink& sink, const BufferFormat& format) {
    if (!sink.GetFormat().IsCompatibleWith(format)) {
        throw osa::Exception("Incompatible formats");
    }
}

} // namespace quarn::calvane
