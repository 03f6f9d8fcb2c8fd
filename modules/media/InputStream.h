#pragma once

#include "CodecInfo.h"

namespace calvane_media {

enum class StreamKind { Video, Audio, Data };

/// One stream of an input, as far as those that take its packets need to know it.
struct InputStream {
    int index = 0;
    StreamKind kind = StreamKind::Data;
    CodecParametersPtr parameters;
    AVRational timeBase{0, 1};
    AVRational frameRate{0, 1}; ///< 0/1: not known.
};

} // namespace calvane_media
