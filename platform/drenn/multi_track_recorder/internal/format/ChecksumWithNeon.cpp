// Compiled with NEON, which Debian's armhf does not take for granted. It must include nothing whose functions others might be
// linked with.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "drenn/multi_track_recorder/internal/format/ChecksumWithNeon.h"

#if XXH_VECTOR != XXH_NEON
#error "this is compiled without NEON"
#endif

namespace drenn::multi_track_recorder {

std::uint64_t ChecksumWithNeon(const void* bytes, std::size_t length, std::uint64_t seed) {
    return XXH3_64bits_withSeed(bytes, length, seed);
}

} // namespace drenn::multi_track_recorder
