#include "Input.h"

#include <cstring>
#include <random>

namespace {

constexpr std::size_t kPoolBytes = 8U << 20U;
constexpr std::size_t kLeastVideo = 8 * 1024;
constexpr std::size_t kMostVideo = 150 * 1024;

// One step of a generator whose every state is reached: records differ, and are the same in every run.
std::uint64_t Mix(std::uint64_t value) {
    value = (value ^ (value >> 30U)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27U)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31U);
}

} // namespace

Input::Input() : pool_(kPoolBytes) {
    std::mt19937_64 random(1);
    for (std::size_t i = 0; i < pool_.size(); i += 8) {
        const std::uint64_t value = random();
        std::memcpy(&pool_[i], &value, 8);
    }
}

InputRecord Input::Get(unsigned track, std::uint32_t index) const {
    const std::uint64_t random = Mix((std::uint64_t{track} << 32U) + index + 1);
    InputRecord record;
    record.track = track;
    record.index = index;
    std::memcpy(record.header, &index, sizeof index);
    std::memcpy(record.header + 8, &random, sizeof random);
    const std::size_t bytes =
        track == 0   ? kLeastVideo + static_cast<std::size_t>(random % (kMostVideo - kLeastVideo))
        : track == 1 ? 320
                     : 200;
    record.bodyBytes = bytes - InputRecord::kHeaderBytes;
    record.body = &pool_[static_cast<std::size_t>((random >> 20U) % (kPoolBytes - kMostVideo))];
    return record;
}
