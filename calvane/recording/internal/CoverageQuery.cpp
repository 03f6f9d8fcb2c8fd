#include <algorithm>

#include "calvane/recording/RecordingManager.h"
#include "calvane/recording/internal/CoverageQuery.h"
#include "calvane/recording/internal/HistoryReader.h"
#include "calvane/recording/internal/TrackLock.h"

namespace quarn::calvane {

using boost::posix_time::ptime;

namespace {

/// Between an event and the record that it belongs to.
const boost::posix_time::time_duration kTolerance = boost::posix_time::seconds(2);
/// Looking for gaps ends after this many headers; the rest then counts as data.
constexpr unsigned int kMostReads = 10000;

} // namespace

CoverageQuery::CoverageQuery(const RecordingTrack& history, const RecordingTrack& track, const Moment& moment)
    : _history(history), _track(track), _moment(moment) {}

std::vector<CoverageSpan> CoverageQuery::run(const ptime& from, const ptime& to) {
    _from = from;
    _to = to;
    const std::vector<Stretch> stretches = divide();
    _track.getRecordingTimePeriod(_first, _last);
    for (const Stretch& stretch : stretches) {
        const ptime start = stretch.begin.is_special() ? from : std::max(from, stretch.begin);
        const ptime end = stretch.end.is_special() ? to : std::min(to, stretch.end);
        if (stretch.said == Said::Present) {
            addPresent(stretch, start, end);
        } else {
            addByRecords(stretch, start, end);
        }
    }
    return _spans;
}

void CoverageQuery::apply(Stretch& stretch, const HistoryEvent& event) {
    stretch.said = event.present ? Said::Present : Said::Absent;
    stretch.reason = event.reason;
    stretch.isCertain = true;
    stretch.begin = event.time;
    stretch.end = ptime();
}

/// What the history says between the two times, with where each of it really began and ended.
std::vector<CoverageQuery::Stretch> CoverageQuery::divide() const {
    std::vector<Stretch> stretches(1);
    const auto before = lastEvent(_from);
    if (before) {
        apply(stretches.front(), *before);
    }
    std::vector<HistoryEvent> events = eventsBetween(_from, _to);
    if (const auto after = nextEvent(_to)) {
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

std::optional<HistoryEvent> CoverageQuery::lastEvent(const ptime& t) const {
    auto last = HistoryReader(_history).findLast(t, _track.getTrackType());
    for (const HistoryEvent& event : _moment.pending) {
        if (event.time <= t && (!last || last->time <= event.time)) {
            last = event;
        }
    }
    return last;
}

std::vector<HistoryEvent> CoverageQuery::eventsBetween(const ptime& from, const ptime& to) const {
    auto events = HistoryReader(_history).findBetween(from, to, _track.getTrackType());
    for (const HistoryEvent& event : _moment.pending) {
        if (from < event.time && event.time <= to) {
            events.push_back(event);
        }
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const HistoryEvent& a, const HistoryEvent& b) { return a.time < b.time; });
    return events;
}

std::optional<HistoryEvent> CoverageQuery::nextEvent(const ptime& t) const {
    auto next = HistoryReader(_history).findNext(t, _track.getTrackType());
    for (const HistoryEvent& event : _moment.pending) {
        if (t < event.time && (!next || event.time < next->time)) {
            next = event;
        }
    }
    return next;
}

/// Where the history says present, there is data from the first record to the last, or to this moment.
void CoverageQuery::addPresent(const Stretch& stretch, const ptime& start, const ptime& end) {
    const bool isOpen = stretch.end.is_special() && _moment.isPresent;
    ptime dataStart = _first;
    ptime dataEnd = _last;
    if (!stretch.begin.is_special() &&
        (_first.is_special() || (stretch.begin < _first && _first - stretch.begin <= kTolerance))) {
        dataStart = stretch.begin;
    }
    if (isOpen && _moment.afterwards == CoverageReason::Unknown) {
        dataEnd = _last.is_special() ? _moment.now : std::max(_last, _moment.now);
    } else if (!stretch.end.is_special() && !_last.is_special() && stretch.end - _last <= kTolerance) {
        dataEnd = stretch.end;
    }
    const CoverageReason before = stretch.isCertain ? CoverageReason::Erased : CoverageReason::Unknown;
    if (dataStart.is_special() || dataEnd.is_special() || dataEnd < dataStart) {
        add(start, end, before);
        return;
    }
    if (start < dataStart) {
        add(start, std::min(end, dataStart), before);
    }
    if (dataStart <= end && start <= dataEnd) {
        add(std::max(start, dataStart), std::min(end, dataEnd), CoverageReason::Data);
    }
    if (dataEnd < end) {
        add(std::max(start, dataEnd), end, isOpen ? _moment.afterwards : CoverageReason::Unknown);
    }
}

void CoverageQuery::addByRecords(const Stretch& stretch, const ptime& start, const ptime& end) {
    ptime done = start;
    CoverageReason afterwards = stretch.reason;
    for (const CoverageSpan& run : findRuns(stretch, start, end)) {
        const CoverageReason gap = run.reason != CoverageReason::Data ? run.reason : stretch.reason;
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

/// Runs of records within the stretch and near the span from `start` to `end`. The reason of a run is that of
/// the gap in front of it, if the records tell it, otherwise Data.
std::vector<CoverageSpan> CoverageQuery::findRuns(const Stretch& stretch, const ptime& start,
                                                  const ptime& end) {
    const auto gap = RecordingManager::kLargestRecordGap;
    const boost::posix_time::time_duration tick = boost::posix_time::microseconds(1);
    std::vector<CoverageSpan> runs;
    // A record at the very time of an absent event is the last one of what ended then.
    const ptime low = stretch.begin.is_special() ? start - gap : std::max(start - gap, stretch.begin + tick);
    const ptime high = stretch.end.is_special() ? end + gap : std::min(end + gap, stretch.end);
    const TrackLock lock(*_track.getTrack());
    const unsigned int first = _track.getFirstReadableIndex(_track.getFirstIndexNotBefore(low));
    const auto last = _track.findLastReadableIndex(_track.getFirstIndexNotBefore(high + tick));
    if (last && first <= *last) {
        const ptime firstTime = _track.getTimestampAtIndex(first);
        runs.push_back({firstTime, firstTime, CoverageReason::Data});
        joinRuns(first, *last, firstTime, _track.getTimestampAtIndex(*last), runs);
    }
    return runs;
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
    if (lastTime - firstTime <= RecordingManager::kLargestRecordGap || _reads > kMostReads) {
        runs.back().end = lastTime;
        return;
    }
    ++_reads;
    const unsigned int middle = findBetween(first, last);
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
    if (!_spans.empty() && _spans.back().reason == reason) {
        _spans.back().end = end;
    } else {
        _spans.push_back({start, end, reason});
    }
}

} // namespace quarn::calvane
