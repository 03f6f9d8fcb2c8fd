#pragma once

#include <array>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstddef>
#include <vector>

namespace quarn::calvane {

/// Whether there is data at a time, and if not, why. The numbers stand in history records (key "Reason") and
/// go to clients.
enum class CoverageReason : int {
    Data = 0,    ///< There is.
    Stopped = 1, ///< Its producer had none.
    NoCard = 2,  ///< The card was away.
    Erased = 3,  ///< It was older than the limit of age, or by a limit that is another one now.
    Dropped = 4, ///< Its producer or the store could not keep up.
    Clock = 5,   ///< The clock jumped over this time.
    Unknown = 6,
    Interrupted = 7, ///< The recorder ended without an end of the data: it was killed, or the power failed.
    SpaceLimit = 8,  ///< Erased, since the limit of space is reached.
    CardFull = 9     ///< Erased, since the card is full.
};

/// What a reason is called, and its mark in a time line.
struct CoverageReasonName {
    const char* text;
    char mark;
};

/// By their numbers.
inline constexpr std::array<CoverageReasonName, 10> kCoverageReasonNames{{{"data", '#'},
                                                                          {"stopped", '.'},
                                                                          {"no card", 'c'},
                                                                          {"erased", 'e'},
                                                                          {"dropped", 'd'},
                                                                          {"clock", 't'},
                                                                          {"unknown", '?'},
                                                                          {"interrupted", 'i'},
                                                                          {"space limit", 's'},
                                                                          {"card full", 'f'}}};

/// A stretch of time. Both ends belong to it.
struct CoverageSpan {
    boost::posix_time::ptime start;
    boost::posix_time::ptime end;
    CoverageReason reason = CoverageReason::Unknown;
};

/// A part of what there is between two times.
struct CoveragePage {
    std::vector<CoverageSpan> spans;
    boost::posix_time::ptime next; ///< Where the spans end.
    bool more = false;             ///< There are others, from `next` on.
};

} // namespace quarn::calvane
