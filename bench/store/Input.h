#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "Peer.h"

/// The records of a camera, second by second: told by track and index alone, so that what is read can be checked.
class Input {
public:
    static constexpr unsigned kTracks = 4; ///< Video, audio, metadata, history.
    static constexpr unsigned kHistory = 3;
    static constexpr std::array<std::uint32_t, kTracks> kPerSecond{30, 50, 30, 1};

    Input();

    InputRecord Get(unsigned track, std::uint32_t index) const;

    /// Calls `each` for every record of a second, in the order in which they would come.
    template <typename Each>
    void ForSecond(std::uint32_t second, Each each) const {
        for (std::uint32_t slot = 0; slot < 50; ++slot) {
            for (unsigned track = 0; track < kTracks; ++track) {
                if (slot < kPerSecond[track]) {
                    each(Get(track, second * kPerSecond[track] + slot));
                }
            }
        }
    }

private:
    std::vector<unsigned char> pool_; ///< Random, as compressed video is.
};
