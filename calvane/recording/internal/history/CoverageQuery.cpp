#include <algorithm>
#include <utility>

#include "calvane/recording/internal/RecordingRules.h"
#include "calvane/recording/internal/TrackLock.h"
#include "calvane/recording/internal/history/CoverageQuery.h"
#include "calvane/recording/internal/history/HistoryReader.h"

namespace quarn::calvane {

using boost::posix_time::ptime;

namespace {

/// Between an event and the record that it belongs to.
const boost::posix_time::time_duration kTolerance = boost::posix_time::seconds(2);
/// Looking for gaps ends after this many headers; the rest then counts as data.
constexpr unsigned int kMostReads = 2000;

} // namespace

CoverageQuery::CoverageQuery(const RecordingTrack& history, EventsAround& around, const RecordingTrack& track,
                             const Moment& moment)
    : _history(history), _around(around), _track(track), _moment(moment) {}

CoveragePage CoverageQuery::run(const ptime& from, const ptime& to, std::size_t max) {
    _from = from;
    _to = to;
    const std::vector<Stretch> stretches = divide(max);
    if (const auto reason = from == to ? lookNear(stretches.back(), from) : std::nullopt) {
        add(from, to, *reason);
        return {std::move(_spans), to, false};
    }
    _track.getRecordingTimePeriod(_first, _last);
    for (const Stretch& stretch : stretches) {
        const ptime start = stretch.begin.is_special() ? from : std::max(from, stretch.begin);
        const ptime end = stretch.end.is_special() ? _to : std::min(_to, stretch.end);
        if (stretch.said == Said::Present) {
            addPresent(stretch, start, end);
        } else {
            addAbsent(stretch, start, end);
        }
    }
    _spans.resize(std::min(_spans.size(), max));
    const ptime next = _spans.back().end;
    return {std::move(_spans), next, next < to};
}

/// What the records next to one time tell. There is data where they are both of the stretch, and so near that they belong
/// together whatever is usual; there is none where the history says the same and nothing in front is near. So most
/// questions need no closer look, or not even a read.
std::optional<CoverageReason> CoverageQuery::lookNear(const Stretch& stretch, const ptime& t) const {
    const bool isPresent = stretch.said == Said::Present;
    // A record at the very time of an absent event is the last one of what ended then.
    const auto isOfStretch = [&](const ptime& time) {
        return stretch.begin.is_special() || stretch.begin < time || (stretch.begin == time && isPresent);
    };
    const auto isBetween = [&](const std::optional<RecordingTrack::Surroundings>& around) {
        return around && around->step <= kLargestRecordGap && isOfStretch(around->before) &&
               (stretch.end.is_special() || around->behind <= stretch.end);
    };
    if (isBetween(_track.findKnownAround(t))) {
        return CoverageReason::Data;
    }
    const auto around = _track.findAround(t);
    if (isBetween(around)) {
        return CoverageReason::Data;
    }
    const bool isFar = around && (!isOfStretch(around->before) || t - around->before > kLargestRecordGap);
    return isFar && !isPresent ? std::make_optional(stretch.reason) : std::nullopt;
}

CoverageReason CoverageQuery::whyErased() {
    if (!_whyErased) {
        _whyErased = _moment.whyErased();
    }
    return *_whyErased;
}

void CoverageQuery::apply(Stretch& stretch, const HistoryEvent& event) {
    stretch.said = event.present ? Said::Present : Said::Absent;
    stretch.reason = event.reason;
    stretch.isCertain = true;
    stretch.begin = event.time;
    stretch.end = ptime();
}

/// What the history says between the two times, with where each of it really began and ended.
/// Those of `max` events, with which the page ends.
std::vector<CoverageQuery::Stretch> CoverageQuery::divide(std::size_t max) {
    std::vector<Stretch> stretches(1);
    EventsAround::Events around = _around.find(_from, _track.getTrackType());
    const auto before = lastEvent(_from, around.last);
    if (before) {
        apply(stretches.front(), *before);
    }
    std::vector<HistoryEvent> events = eventsBetween(_from, _to, max);
    if (events.size() == max) {
        _to = events.back().time;
    }
    if (_to != _from) {
        around = _around.find(_to, _track.getTrackType());
    }
    if (const auto after = nextEvent(_to, around.next)) {
        events.push_back(*after);
    }
    if (!before) {
        const bool wasPresent = events.empty() ? _moment.isPresent : !events.front().present;
        stretches.front().said = wasPresent ? Said::Present : Said::Nothing;
    }
    for (const HistoryEvent& event : events) {
        stretches.back().end = event.time;
        if (event.time <= _to) {
            apply(stretches.emplace_back(), event);
        }
    }
    return stretches;
}

/// With those that are not in the history yet.
std::optional<HistoryEvent> CoverageQuery::lastEvent(const ptime& t, std::optional<HistoryEvent> last) const {
    for (const HistoryEvent& event : _moment.pending) {
        if (event.time <= t && (!last || last->time <= event.time)) {
            last = event;
        }
    }
    return last;
}

std::vector<HistoryEvent> CoverageQuery::eventsBetween(const ptime& from, const ptime& to,
                                                       std::size_t max) const {
    auto events = HistoryReader(_history).findBetween(from, to, _track.getTrackType(), max);
    for (const HistoryEvent& event : _moment.pending) {
        if (from < event.time && event.time <= to) {
            events.push_back(event);
        }
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const HistoryEvent& a, const HistoryEvent& b) { return a.time < b.time; });
    events.resize(std::min(events.size(), max));
    return events;
}

std::optional<HistoryEvent> CoverageQuery::nextEvent(const ptime& t, std::optional<HistoryEvent> next) const {
    for (const HistoryEvent& event : _moment.pending) {
        if (t < event.time && (!next || event.time < next->time)) {
            next = event;
        }
    }
    return next;
}

/// Where the history says present, there is data as far as there are records; towards its ends up to what it says if
/// that is near, and while it is being recorded up to this moment.
void CoverageQuery::addPresent(const Stretch& stretch, const ptime& start, const ptime& end) {
    const bool isOpen = stretch.end.is_special() && _moment.isPresent;
    // Where the event that it began with has been erased for its age, other limits may have taken what was younger.
    const bool isErased = stretch.isCertain || whyErased() != CoverageReason::Erased;
    const CoverageReason before = isErased ? CoverageReason::Erased : CoverageReason::Unknown;
    const CoverageReason behind = isOpen ? _moment.afterwards : CoverageReason::Unknown;
    std::vector<CoverageSpan> runs = findRuns(stretch, start, end);
    if (!runs.empty()) {
        CoverageSpan& first = runs.front();
        // What was in front of the first record of all may be erased.
        const auto tolerance = first.start == _first ? kTolerance : _longestGap;
        if (!stretch.begin.is_special() && first.start - stretch.begin <= tolerance) {
            first.start = std::min(first.start, stretch.begin);
        }
        CoverageSpan& last = runs.back();
        if (isOpen && last.end >= _last && _moment.afterwards == CoverageReason::Unknown) {
            last.end = std::max(last.end, _moment.now);
        } else if (!stretch.end.is_special() && stretch.end - last.end <= _longestGap) {
            last.end = std::max(last.end, stretch.end);
        }
    }
    const bool isBeforeAll = _first.is_special() || start < _first;
    addRuns(runs, start, end, isBeforeAll ? before : CoverageReason::Unknown, CoverageReason::Unknown,
            behind);
}

/// Where the history says absent or nothing, the records tell.
void CoverageQuery::addAbsent(const Stretch& stretch, const ptime& start, const ptime& end) {
    addRuns(findRuns(stretch, start, end), start, end, stretch.reason, stretch.reason, stretch.reason);
}

/// The runs, as far as they lie between the two times, and the reasons of what is in front of them, between them and
/// behind them, where the records do not tell it.
void CoverageQuery::addRuns(const std::vector<CoverageSpan>& runs, const ptime& start, const ptime& end,
                            CoverageReason before, CoverageReason between, CoverageReason behind) {
    ptime done = start;
    bool isFirst = true;
    CoverageReason afterwards = runs.empty() ? before : behind;
    for (const CoverageSpan& run : runs) {
        const CoverageReason other = std::exchange(isFirst, false) ? before : between;
        const CoverageReason gap = run.reason != CoverageReason::Data ? run.reason : other;
        if (run.end < done) {
            continue;
        }
        if (end < run.start) {
            afterwards = gap;
            break;
        }
        if (done < run.start) {
            add(done, run.start, gap);
            done = run.start;
        }
        add(done, std::min(end, run.end), CoverageReason::Data);
        done = std::min(end, run.end);
    }
    if (_spans.empty() || done < end) {
        add(done, end, afterwards);
    }
}

/// What is usually between two records near an index range: the median of some. Within the track's lock.
boost::posix_time::time_duration CoverageQuery::usualInterval(unsigned int first, unsigned int last) {
    constexpr unsigned int kMostSamples = 15;
    const unsigned int samples = std::min(kMostSamples, last - first);
    std::vector<boost::posix_time::time_duration> intervals;
    for (unsigned int sample = 0; sample < samples && !_isStale; ++sample) {
        const auto place = static_cast<unsigned int>(first + std::uint64_t{last - first} * sample / samples);
        const auto one = _track.findTimestamp(place);
        const auto next = _track.findTimestamp(place + 1);
        if (one && next) {
            intervals.push_back(*next - *one);
        }
        giveWay();
    }
    if (intervals.empty()) {
        return boost::posix_time::time_duration();
    }
    const auto middle = intervals.begin() + static_cast<std::ptrdiff_t>(intervals.size() / 2);
    std::nth_element(intervals.begin(), middle, intervals.end());
    return *middle;
}

/// Runs of records within the stretch and near the span from `start` to `end`. The reason of a run is that of
/// the gap in front of it, if the records tell it, otherwise Data. Where the producer said that its data was present, a
/// gap is what is much longer than usual.
std::vector<CoverageSpan> CoverageQuery::findRuns(const Stretch& stretch, const ptime& start,
                                                  const ptime& end) {
    constexpr int kMostTries = 5;
    std::vector<CoverageSpan> runs;
    _lock = std::unique_lock<const drenn::multi_track_recorder::Track>(*_track.getTrack());
    const unsigned int reads = _reads;
    for (int tries = 1; tries == 1 || _isStale; ++tries) {
        _isStale = false;
        _reads = reads;
        _givesWay = tries < kMostTries; // Who erases all the time does not keep it from ending.
        _erasings = _track.countErasings();
        runs = findRunsAtOnce(stretch, start, end);
    }
    _lock.unlock();
    return runs;
}

/// Within the track's lock, which it lets others have meanwhile. Worthless if records were erased then, see _isStale.
std::vector<CoverageSpan> CoverageQuery::findRunsAtOnce(const Stretch& stretch, const ptime& start,
                                                        const ptime& end) {
    constexpr int kMuchLonger = 20;
    const boost::posix_time::time_duration tick = boost::posix_time::microseconds(1);
    const bool isPresent = stretch.said == Said::Present;
    std::vector<CoverageSpan> runs;
    _usual = boost::posix_time::time_duration();
    _longestGap = kLargestRecordGap;
    if (isPresent) {
        const auto [first, last] = findRecords(stretch.begin, stretch.end);
        _usual = first < last ? usualInterval(first, last) : _usual;
        _longestGap = std::max(_longestGap, _usual * kMuchLonger);
    }
    // A record at the very time of an absent event is the last one of what ended then.
    const ptime begin = stretch.begin.is_special() || isPresent ? stretch.begin : stretch.begin + tick;
    const auto [first, last] =
        findRecords(begin.is_special() ? start - _longestGap : std::max(start - _longestGap, begin),
                    stretch.end.is_special() ? end + _longestGap : std::min(end + _longestGap, stretch.end));
    if (first <= last) {
        const ptime firstTime = _track.getTimestampAtIndex(first);
        runs.push_back({firstTime, firstTime, CoverageReason::Data});
        joinRuns(first, last, firstTime, _track.getTimestampAtIndex(last), runs);
    }
    return runs;
}

/// A producer does not wait for more than the few records that are read at once.
void CoverageQuery::giveWay() {
    if (_givesWay && !_isStale) {
        _lock.unlock();
        _lock.lock();
        _isStale = _track.countErasings() != _erasings;
    }
}

/// The first and the last record from one time to another that can be read, in the wrong order if there is none. Special
/// times are open. Within the track's lock.
std::pair<unsigned int, unsigned int> CoverageQuery::findRecords(const ptime& from, const ptime& to) const {
    const ptime behind = to.is_special() ? ptime() : to + boost::posix_time::microseconds(1);
    const unsigned int begin =
        _track.getFirstIndexNotBefore(from.is_special() ? ptime(boost::posix_time::neg_infin) : from);
    const unsigned int first = _track.getFirstReadableIndex(begin);
    const auto last = _track.findLastReadableIndex(_track.getFirstIndexNotBefore(behind));
    return last && first <= *last ? std::pair{first, *last} : std::pair{1U, 0U};
}

/// A record about in the middle between two others that can be read; `last` if there is none.
unsigned int CoverageQuery::findBetween(unsigned int first, unsigned int last) const {
    const unsigned int middle = first + (last - first + 1) / 2;
    const unsigned int next = _track.getFirstReadableIndex(middle);
    if (next < last) {
        return next;
    }
    const auto previous = _track.findLastReadableIndex(middle);
    return previous && *previous > first ? *previous : last;
}

/// Goes on with the last run, which ends at `first`, up to the record at `last`.
void CoverageQuery::joinRuns(unsigned int first, unsigned int last, const ptime& firstTime,
                             const ptime& lastTime, std::vector<CoverageSpan>& runs) {
    const auto usual =
        boost::posix_time::microseconds(_usual.total_microseconds() * std::int64_t{last - first});
    if (lastTime - firstTime - usual <= _longestGap || _reads > kMostReads) {
        runs.back().end = lastTime;
        return;
    }
    ++_reads;
    giveWay();
    if (_isStale) {
        return;
    }
    const unsigned int middle = findBetween(first, last);
    if (middle == last && lastTime - firstTime <= _longestGap) {
        runs.back().end = lastTime;
        return;
    }
    if (middle == last) {
        const bool dropped = (_track.readHeader(last).flags & RecordHeader::kDiscontinuity) != 0;
        runs.push_back({lastTime, lastTime, dropped ? CoverageReason::Dropped : CoverageReason::Data});
        return;
    }
    const ptime middleTime = _track.getTimestampAtIndex(middle);
    joinRuns(first, middle, firstTime, middleTime, runs);
    joinRuns(middle, last, middleTime, lastTime, runs);
}

/// Puts a span behind the others, whose end is its start.
void CoverageQuery::add(const ptime& start, const ptime& end, CoverageReason reason) {
    if (end < start || (start == end && (_from != _to || !_spans.empty()))) {
        return;
    }
    if (reason == CoverageReason::Unknown && !_moment.cutoff.is_special() && end <= _moment.cutoff) {
        reason = CoverageReason::Erased;
    }
    if (reason == CoverageReason::Erased) {
        addErased(start, end);
        return;
    }
    append(start, end, reason);
}

/// What is much later than the cut-off was not erased for its age.
void CoverageQuery::addErased(const ptime& start, const ptime& end) {
    const ptime cutoff = _moment.cutoff;
    if (!cutoff.is_special() && end - cutoff <= kLargestRecordGap) {
        append(start, end, CoverageReason::Erased);
    } else if (cutoff.is_special() || cutoff <= start) {
        append(start, end, whyErased());
    } else {
        append(start, cutoff, CoverageReason::Erased);
        append(cutoff, end, whyErased());
    }
}

void CoverageQuery::append(const ptime& start, const ptime& end, CoverageReason reason) {
    if (!_spans.empty() && _spans.back().reason == reason) {
        _spans.back().end = end;
    } else {
        _spans.push_back({start, end, reason});
    }
}

} // namespace quarn::calvane
