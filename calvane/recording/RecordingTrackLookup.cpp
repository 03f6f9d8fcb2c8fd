// Finding records by time.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <utility>

#include "calvane/recording/RecordHeader.h"
#include "calvane/recording/RecordingTrack.h"
#include "calvane/recording/internal/InfoMap.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/RecordingRules.h"
#include "calvane/recording/internal/StoredRecord.h"
#include "calvane/recording/internal/TrackLock.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using StoreTrack = drenn::multi_track_recorder::Track;

namespace {

constexpr unsigned int kMostSeen = 8192; // 128 KiB.
const double kLargestGap = static_cast<double>(kLargestRecordGap.ticks());
constexpr unsigned int kFewestForRate = 64;
constexpr unsigned int kLeastMargin = 4;
constexpr unsigned int kMarginGrowth = 8;
constexpr unsigned int kMostMargin = std::numeric_limits<unsigned int>::max() / kMarginGrowth;

/// Of ticks that do not fall. A signed difference might not hold it.
double distance(std::int64_t from, std::int64_t to) {
    return static_cast<double>(static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from));
}

/// Records per tick; 0 when there are too few to tell, or no time between them.
double rateOf(unsigned int records, std::int64_t from, std::int64_t to) {
    return records < kFewestForRate || to <= from ? 0 : records / distance(from, to);
}

std::int64_t ticksOf(const StoreTrack::LeadingBytes& leading) {
    RecordHeader header;
    std::memcpy(&header, leading.data(), sizeof header);
    return header.ticks;
}

static_assert(offsetof(RecordHeader, ticks) == 8 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the store measures steps in bytes 8 to 15, lowest first");

/// The records next to the wanted time, in front of it and behind it, of those that the store knows without a read.
StoreTrack::KnownRecords findKnown(const StoreTrack& track, std::int64_t wanted) {
    return track.findKnown(
        [wanted](const StoreTrack::LeadingBytes& leading) { return ticksOf(leading) < wanted; });
}

} // namespace

unsigned int RecordingTrack::getFirstIndexNotBefore(const ptime& t) const {
    const TrackLock lock(*_track);
    const unsigned int size = _track->size();
    if (size == 0 || t.is_not_a_date_time()) {
        return size;
    }
    try {
        return std::max(_hidden, interpolateFirstIndexNotBefore(t, size));
    } catch (const std::exception&) { // A record cannot be read.
        return std::max(_hidden, halveFirstIndexNotBefore(t, size));
    }
}

void RecordingTrack::hideBefore(const ptime& cutoff) {
    const TrackLock lock(*_track);
    const unsigned int hidden = std::exchange(_hidden, 0);
    ptime first;
    ptime last;
    if (!cutoff.is_special() && getRecordingTimePeriod(first, last) && first < cutoff) {
        _hidden = getTrackIndexForcedIntoBounds(cutoff) + 1;
    }
    _erasings += _hidden != hidden ? 1 : 0;
}

/// Within the lock. For a record that cannot be read, the next one that can be speaks.
unsigned int RecordingTrack::halveFirstIndexNotBefore(const ptime& t, unsigned int size) const {
    unsigned int low = 0;
    for (unsigned int high = size; low < high;) {
        const unsigned int middle = low + (high - low) / 2;
        const unsigned int readable = getFirstReadableIndex(middle);
        if (readable < high && timestampLessThan(readable, t)) {
            low = readable + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

/// Within the lock, and with records.
unsigned int RecordingTrack::interpolateFirstIndexNotBefore(const ptime& t, unsigned int size) const {
    const std::int64_t wanted = ticksFromTime(t);
    const Bracket found = findNeighbours(wanted, size);
    if (found.low == found.high) { // All are on the same side.
        return wanted <= found.lowTicks ? 0 : size;
    }
    return found.high;
}

/// The two records that the wanted time lies between; twice the first or the last one if all are on the same side. Within
/// the lock, and with records.
RecordingTrack::Bracket RecordingTrack::findNeighbours(std::int64_t wanted, unsigned int size) const {
    Bracket bracket = beginNear(wanted, size);
    if (bracket.lowTicks >= wanted || bracket.highTicks < wanted) {
        return bracket;
    }
    const Bracket begun = bracket;
    try {
        narrow(bracket);
        // If they are next to each other and both were read, it does not matter where the search began.
        if (bracket.low == begun.low) {
            bracket.lowTicks = readHeader(bracket.low).ticks;
        }
        if (bracket.high == begun.high) {
            bracket.highTicks = readHeader(bracket.high).ticks;
        }
        if (bracket.lowTicks < wanted && wanted <= bracket.highTicks) {
            noteSeen(bracket);
            return bracket;
        }
    } catch (const std::runtime_error&) { // The next attempt tells whether it is the records' fault.
    }
    _seen.clear(); // Records were lost with the card.
    bracket = bracketOf(wanted, size, std::nullopt, std::nullopt);
    if (bracket.low != bracket.high) {
        narrow(bracket);
    }
    return bracket;
}

/// Between the nearest records whose times need no read: those that searches ended with, and those that the store knows.
RecordingTrack::Bracket RecordingTrack::beginNear(std::int64_t wanted, unsigned int size) const {
    const auto toPlace = [](const std::optional<StoreTrack::KnownRecord>& known) {
        return known ? std::make_optional(Place{ticksOf(known->leading), known->index}) : std::nullopt;
    };
    const auto known = findKnown(*_track, wanted);
    std::optional<Place> low = toPlace(known.before);
    std::optional<Place> high = toPlace(known.behind);
    const auto next = firstSeenNotBefore(wanted);
    if (next != _seen.begin() && std::prev(next)->index < size &&
        (!low || low->index < std::prev(next)->index)) {
        low = *std::prev(next);
    }
    if (next != _seen.end() && next->index < size && (!high || next->index < high->index)) {
        high = *next;
    }
    const bool isInOrder = !low || !high || low->index < high->index;
    return isInOrder ? bracketOf(wanted, size, low, high)
                     : bracketOf(wanted, size, std::nullopt, std::nullopt);
}

/// Between these two, or the first and the last record.
RecordingTrack::Bracket RecordingTrack::bracketOf(std::int64_t wanted, unsigned int size,
                                                  const std::optional<Place>& low,
                                                  const std::optional<Place>& high) const {
    const Place first = low ? *low : Place{readHeader(0).ticks, 0};
    if (wanted <= first.ticks) {
        return {wanted, first.index, first.index, first.ticks, first.ticks};
    }
    const Place last = high ? *high : Place{readHeader(size - 1).ticks, size - 1};
    if (last.ticks < wanted) {
        return {wanted, last.index, last.index, last.ticks, last.ticks};
    }
    return {wanted, first.index, last.index, first.ticks, last.ticks};
}

/// Within the lock.
///
/// An interpolation search. Every header that is read may be a read from the device, and a binary search reads one for
/// each bit of the size. But records come at a nearly constant rate where there are any. So the place is interpolated,
/// first between the ends, then from the nearer end with the highest rate seen, and moved by a margin so that it lies
/// beyond the wanted time. Where a gap kept a step from halving what is left, the next margin is larger, up to a step of
/// the binary search.
void RecordingTrack::narrow(Bracket& bracket) const {
    const double place = bracket.low + distance(bracket.lowTicks, bracket.wanted) *
                                           (bracket.high - bracket.low) /
                                           distance(bracket.lowTicks, bracket.highTicks);
    lookAt(bracket, place);
    unsigned int margin = kLeastMargin;
    double rate = rateOf(bracket.high - bracket.low, bracket.lowTicks, bracket.highTicks);
    while (bracket.high > bracket.low + 1) {
        const Bracket before = bracket;
        const unsigned int left = bracket.high - bracket.low;
        const double ahead = bracket.low + distance(bracket.lowTicks, bracket.wanted) * rate;
        const double behind = bracket.high - distance(bracket.wanted, bracket.highTicks) * rate;
        const bool isLowNearer = ahead - bracket.low < bracket.high - behind;
        if (margin >= left / 4 || !lookAt(bracket, isLowNearer ? ahead + margin : behind - margin)) {
            const unsigned int middle = bracket.low + left / 2;
            lookAt(bracket, middle);
        }
        rate = std::max({rate, rateOf(bracket.low - before.low, before.lowTicks, bracket.lowTicks),
                         rateOf(before.high - bracket.high, bracket.highTicks, before.highTicks),
                         rateOf(bracket.high - bracket.low, bracket.lowTicks, bracket.highTicks)});
        const bool isHalved = bracket.high - bracket.low <= left / 2;
        margin = isHalved ? std::max(margin / kMarginGrowth, kLeastMargin)
                          : std::min(margin, kMostMargin) * kMarginGrowth;
    }
}

/// Narrows the bracket down to the record at a place, or by those that are read with it. False, without a look, when that is
/// not inside.
bool RecordingTrack::lookAt(Bracket& bracket, double place) const {
    if (!(place >= bracket.low + 1.0 && place <= bracket.high - 1.0)) {
        return false;
    }
    const auto isBefore = [&](const StoreTrack::Leading& leading) {
        return recordHeaderOf(leading).ticks < bracket.wanted;
    };
    const auto near = _track->findNear(static_cast<unsigned int>(place), isBefore);
    const bool isLower = near.before && bracket.low < near.before->index;
    const bool isHigher = near.behind && near.behind->index < bracket.high;
    if (isLower) {
        bracket.low = near.before->index;
        bracket.lowTicks = ticksOf(near.before->leading);
    }
    if (isHigher) {
        bracket.high = near.behind->index;
        bracket.highTicks = ticksOf(near.behind->leading);
    }
    if ((!isLower && !isHigher) || bracket.low >= bracket.high) {
        throw std::runtime_error("Times of records are not in order");
    }
    return true;
}

std::vector<RecordingTrack::Place>::iterator RecordingTrack::firstSeenNotBefore(std::int64_t ticks) const {
    return std::lower_bound(_seen.begin(), _seen.end(), ticks,
                            [](const Place& seen, std::int64_t value) { return seen.ticks < value; });
}

/// Keeps what a search ended with: the record in front, unless there is another one near, and both ends of a gap, which take
/// the longest to find. When there are too many, which lie close since the track was short, it begins anew.
void RecordingTrack::noteSeen(const Bracket& found) const {
    const std::uint64_t apart = _track->size() / (kMostSeen / 2);
    const auto next = firstSeenNotBefore(found.lowTicks);
    const bool isNear = (next != _seen.end() && next->index <= found.low + apart) ||
                        (next != _seen.begin() && found.low <= std::prev(next)->index + apart);
    const bool isGap = distance(found.lowTicks, found.highTicks) > kLargestGap;
    if (isNear && !isGap) {
        return;
    }
    if (_seen.size() + 2 > kMostSeen) {
        _seen.clear();
    }
    const auto note = [this](const Place& place) {
        const auto behind = firstSeenNotBefore(place.ticks);
        if (behind == _seen.end() || behind->ticks != place.ticks) {
            _seen.insert(behind, place);
        } else {
            *behind = place;
        }
    };
    note({found.lowTicks, found.low, _losses});
    if (isGap) {
        note({found.highTicks, found.high, _losses});
    }
}

/// Within the lock: the gap that the time lies in, if a search ended there.
std::optional<RecordingTrack::Bracket> RecordingTrack::findSeenGap(const ptime& t) const {
    if (t.is_special()) {
        return std::nullopt;
    }
    const std::int64_t wanted = ticksFromTime(t);
    const auto high = firstSeenNotBefore(wanted);
    if (high == _seen.begin() || high == _seen.end()) {
        return std::nullopt;
    }
    const Place& low = *std::prev(high);
    const bool isGap = low.index + 1 == high->index && low.index >= _hidden;
    const bool isAsRead = low.losses == _losses && high->losses == _losses;
    return isGap && isAsRead
               ? std::make_optional(Bracket{wanted, low.index, high->index, low.ticks, high->ticks})
               : std::nullopt;
}

/// Within the lock. With the one behind them, so that two are not next to each other because of an erasure that may yet fail.
void RecordingTrack::forgetSeen(unsigned int first, unsigned int last) {
    const auto isErased = [&](const Place& seen) { return first <= seen.index && seen.index <= last; };
    _seen.erase(std::remove_if(_seen.begin(), _seen.end(), isErased), _seen.end());
    for (Place& seen : _seen) {
        seen.index -= seen.index < last ? 0 : last - first;
    }
}

/// Within the lock: the first of the records of the same time.
unsigned int RecordingTrack::firstOfItsTime(unsigned int index, const ptime& time) const {
    while (index > _hidden && findTimestamp(index - 1) == time) {
        --index;
    }
    return index;
}

unsigned int RecordingTrack::getTrackIndexForcedIntoBounds(const ptime& t) const {
    const TrackLock lock(*_track);
    const unsigned int size = _track->size();
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Looking up index for timestamp %s (out of %u)",
                          textOf(t).c_str(), size);
    if (size == 0) {
        throw std::out_of_range("No data");
    }
    const unsigned int found = getFirstIndexNotBefore(t);
    unsigned int index = getFirstReadableIndex(found);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Found index %u", index);
    if (index == size || t < getTimestampAtIndex(index)) {
        const std::optional<unsigned int> previous = findLastReadableIndex(found);
        const bool isThere = previous && *previous >= _hidden;
        if (!isThere && index == size) {
            throw std::out_of_range("No data");
        }
        if (isThere) {
            index = index == size ? *previous : firstOfItsTime(*previous, getTimestampAtIndex(*previous));
        }
    }
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Returning index %u", index);
    return index;
}

/// Within the lock: the records that the time lies between, if they can be read and neither is hidden.
std::optional<RecordingTrack::Bracket> RecordingTrack::findReadableNeighbours(const ptime& t) const {
    const unsigned int size = _track->size();
    if (size == 0 || t.is_special()) {
        return std::nullopt;
    }
    try {
        const Bracket found = findNeighbours(ticksFromTime(t), size);
        const bool isBetween = found.low != found.high && found.low >= _hidden;
        return isBetween ? std::make_optional(found) : std::nullopt;
    } catch (const std::exception&) { // A record cannot be read.
        return std::nullopt;
    }
}

std::optional<RecordingTrack::Surroundings> RecordingTrack::findKnownAround(const ptime& t) const {
    const TrackLock lock(*_track);
    if (t.is_special()) {
        return std::nullopt;
    }
    const auto known = findKnown(*_track, ticksFromTime(t));
    if (!known.before || !known.behind || known.before->index < _hidden) {
        return std::nullopt;
    }
    const ptime before = timeFromTicks(ticksOf(known.before->leading));
    const ptime behind = timeFromTicks(ticksOf(known.behind->leading));
    const auto apart = static_cast<std::uint64_t>((behind - before).ticks());
    // Once a record could not be read, only reading tells where others cannot be read, either.
    const std::uint64_t most = _passedOver.empty() ? known.step.value_or(apart) : apart;
    const auto step = static_cast<std::int64_t>(std::min(apart, most));
    return Surroundings{before, behind, boost::posix_time::microseconds(step)};
}

std::optional<RecordingTrack::Surroundings> RecordingTrack::findAround(const ptime& t) const {
    const TrackLock lock(*_track);
    std::optional<Bracket> found = findSeenGap(t);
    if (!found) {
        found = findReadableNeighbours(t);
    }
    if (!found) {
        return std::nullopt;
    }
    const ptime behind = timeFromTicks(found->highTicks);
    const ptime before = behind == t ? t : timeFromTicks(found->lowTicks);
    return Surroundings{before, behind, behind - before};
}

unsigned int RecordingTrack::getTrackIndex(const ptime& t) const {
    const TrackLock lock(*_track);
    if (const std::optional<Bracket> found = findReadableNeighbours(t)) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Looking up index for timestamp %s (out of %u)",
                              textOf(t).c_str(), _track->size());
        const unsigned int index = found->highTicks == found->wanted
                                       ? found->high
                                       : firstOfItsTime(found->low, timeFromTicks(found->lowTicks));
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Returning index %u", index);
        return index;
    }
    ptime first;
    ptime last;
    if (!getRecordingTimePeriod(first, last)) {
        throw std::out_of_range("No data");
    }
    if (t < first) {
        throw std::out_of_range("Timestamp is earlier than any recorded data");
    }
    if (last < t) {
        throw std::out_of_range("Timestamp is later than any recorded data");
    }
    return getTrackIndexForcedIntoBounds(t);
}

void RecordingTrack::getTrackInfoAt(const ptime& t, std::map<std::string, std::string>& info,
                                    ptime& rangeStart, ptime& rangeEnd) {
    std::string text;
    {
        const TrackLock lock(*_track);
        const ReadPositionKeeper keeper(*_track);
        const unsigned int index = getTrackIndex(t);
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Looking up info at index: %u", index);
        _track->seekg(index);
        const auto [first, last] = _track->getInfoRange();
        _track->getInfo(text);
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "got info: %u (%u, %u)", index, first, last);
        // That of `index` can be read.
        rangeStart = getTimestampAtIndex(getFirstReadableIndex(first));
        rangeEnd = getTimestampAtIndex(findLastReadableIndex(last + 1).value_or(index));
    }
    info = infoFromText(text);
}

} // namespace quarn::calvane
