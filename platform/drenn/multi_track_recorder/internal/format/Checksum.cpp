#define XXH_INLINE_ALL
#include <xxhash.h>

#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"
#ifdef DRENN_HAS_CHECKSUM_WITH_NEON
#include <asm/hwcap.h>
#include <sys/auxv.h>

#include "drenn/multi_track_recorder/internal/format/ChecksumWithNeon.h"
#endif

namespace drenn::multi_track_recorder {

std::uint64_t ChecksumOf(const void* bytes, std::size_t length, std::uint64_t seed) {
#ifdef DRENN_HAS_CHECKSUM_WITH_NEON
    static const bool hasNeon = (getauxval(AT_HWCAP) & HWCAP_NEON) != 0;
    if (hasNeon) {
        return ChecksumWithNeon(bytes, length, seed);
    }
#endif
    return XXH3_64bits_withSeed(bytes, length, seed);
}

} // namespace drenn::multi_track_recorder
