#include "calvane/services/RecordingDataAccessImpl.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>

#include "calvane/recording/internal/RecordingSession.h"
#include "calvane/recording/internal/StoredRecord.h"
#include "calvane/recording/internal/TrackLock.h"
#include "calvane/services/internal/RecordStream.h"
#include "calvane/services/internal/ServiceTime.h"
#include "drenn/multi_track_recorder/Track.h"

namespace quarn::calvane {
namespace {

using boost::posix_time::ptime;
using drenn::api::CoverageInterval;
using drenn::api::PayloadRecord;
using drenn::api::ServiceCursor;
using drenn::api::ServiceTime;
using ServiceEvent = drenn::api::HistoryEvent;

track_type dataTrack(unsigned int type) {
    if (type > METADATA_TRACK) {
        throw std::out_of_range("There is no track of type " + std::to_string(type) +
                                "; 0 is video, 1 audio, 2 metadata");
    }
    return static_cast<track_type>(type);
}

void checkSpan(const ptime& from, const ptime& to) {
    if (to < from) {
        throw std::invalid_argument("The end of the span lies before its begin");
    }
}

HistoryCursor fromService(const ServiceCursor& cursor) {
    return {timeFromService(cursor.time), cursor.passed};
}

ServiceCursor toService(const HistoryCursor& cursor) {
    return {serviceFromTime(cursor.time), cursor.passed};
}

ServiceEvent toService(const HistoryEvent& event) {
    ServiceEvent result;
    result.time = serviceFromTime(event.time);
    result.eventType = event.isOfTrack ? 1 : 0;
    result.present = event.present ? 1 : 0;
    result.trackType = event.isOfTrack ? static_cast<unsigned int>(event.track) : 0;
    return result;
}

std::vector<ServiceEvent> toService(const std::vector<HistoryEvent>& events) {
    std::vector<ServiceEvent> result;
    result.reserve(events.size());
    for (const HistoryEvent& event : events) {
        result.push_back(toService(event));
    }
    return result;
}

std::vector<CoverageInterval> toService(const std::vector<CoverageSpan>& spans) {
    std::vector<CoverageInterval> result;
    result.reserve(spans.size());
    for (const CoverageSpan& span : spans) {
        result.push_back(
            {serviceFromTime(span.start), serviceFromTime(span.end), static_cast<unsigned int>(span.reason)});
    }
    return result;
}

/// Reads the record at `index` in one piece; nothing if it cannot be read.
std::optional<PayloadRecord> readPayload(const RecordingTrack& track, unsigned int index) {
    try {
        const StoredRecord record(*track.getTrack(), index);
        return PayloadRecord{serviceFromTime(record.time()), {record.data(), record.data() + record.size()}};
    } catch (const std::exception& problem) {
        track.notePassedOver(index, problem.what());
        return std::nullopt;
    }
}

/// Where the cursor points to. Of what it has passed, nothing may be left.
unsigned int indexOf(const RecordingTrack& track, const HistoryCursor& cursor) {
    const unsigned int size = track.getTrack()->size();
    unsigned int index = track.getFirstIndexNotBefore(cursor.time);
    for (unsigned int passed = 0; passed != cursor.passed && index < size; ++index) {
        const std::optional<ptime> time = track.findTimestamp(index);
        if (time && *time != cursor.time) {
            break;
        }
        passed += time ? 1U : 0U;
    }
    return index;
}

/// How many of this time a cursor has passed when it moves on behind a record.
unsigned int passedAt(const HistoryCursor& cursor, const ptime& time) {
    return time == cursor.time ? cursor.passed + 1 : 1;
}

} // namespace

RecordingDataAccessImpl::RecordingDataAccessImpl(void* logCookie)
    : DrennApiRecordingDataAccessTargetImplBase(logCookie), _streams(std::make_unique<RecordStreams>()) {}

RecordingDataAccessImpl::~RecordingDataAccessImpl() = default;

unsigned int RecordingDataAccessImpl::getFirstRecordingHistoryEventTime(unsigned int* sec,
                                                                        unsigned int* usec) {
    const RecordingTrack& history = RecordingSession::forQuery().card().history();
    ptime first;
    ptime last;
    ServiceTime time;
    if (history.getRecordingTimePeriod(first, last)) {
        time = serviceFromTime(first);
    }
    *sec = time.sec;
    *usec = time.usec;
    return 0;
}

unsigned int RecordingDataAccessImpl::getRecordingHistoryEvent(const ServiceCursor& from, ServiceEvent* event,
                                                               ServiceCursor* next) {
    const HistoryPage page = RecordingSession::forQuery().queries().getHistoryEvent(fromService(from));
    if (page.events.empty()) {
        throw std::out_of_range("No history event at this time or later");
    }
    *event = toService(page.events.front());
    *next = toService(page.next);
    return 0;
}

unsigned int RecordingDataAccessImpl::getMetadata(const ServiceCursor& from, const ServiceTime& to,
                                                  std::vector<PayloadRecord>* records, ServiceCursor* next,
                                                  unsigned char* more) {
    const RecordingCard& card = RecordingSession::forQuery().card();
    const RecordingTrack& metadata = card.track(METADATA_TRACK);
    HistoryCursor cursor = fromService(from);
    const ptime last = timeFromService(to);
    checkSpan(cursor.time, last);
    drenn::multi_track_recorder::Track& track = *metadata.getTrack();
    const TrackLock lock(track);
    const ReadPositionKeeper keeper(track);
    std::size_t bytes = 0;
    records->clear();
    *more = 0;
    for (unsigned int index = indexOf(metadata, cursor); index < track.size(); ++index) {
        const std::optional<ptime> time = metadata.findTimestamp(index);
        if (time && *time > last) {
            break;
        }
        std::optional<PayloadRecord> record = readPayload(metadata, index);
        if (!record) {
            card.require();
            cursor = {time.value_or(cursor.time), !time ? cursor.passed : passedAt(cursor, *time)};
            continue;
        }
        const std::size_t size = record->payload.size();
        if (!records->empty() && (records->size() == kMostReplyEntries || bytes + size > kMostReplyBytes)) {
            *more = 1;
            break;
        }
        if (size > kLongestReplyRecord) {
            throw std::runtime_error("A record of " + std::to_string(size) +
                                     " bytes is too long for a reply; read it with openRecords");
        }
        bytes += size;
        records->push_back(std::move(*record));
        cursor = {*time, passedAt(cursor, *time)};
    }
    *next = toService(cursor);
    return 0;
}

unsigned int RecordingDataAccessImpl::getCoverage(unsigned int trackType, const ServiceTime& from,
                                                  const ServiceTime& to,
                                                  std::vector<CoverageInterval>* intervals) {
    *intervals = toService(RecordingSession::forQuery().queries().getCoverage(
        dataTrack(trackType), timeFromService(from), timeFromService(to)));
    return 0;
}

unsigned int RecordingDataAccessImpl::findCoverage(unsigned int trackType, const ServiceTime& from,
                                                   const ServiceTime& to, unsigned int max,
                                                   std::vector<CoverageInterval>* intervals,
                                                   ServiceTime* next, unsigned char* more) {
    const CoveragePage page = RecordingSession::forQuery().queries().findCoverage(
        dataTrack(trackType), timeFromService(from), timeFromService(to), std::min(max, kMostReplyEntries));
    *intervals = toService(page.spans);
    *next = serviceFromTime(page.next);
    *more = page.more ? 1 : 0;
    return 0;
}

unsigned int RecordingDataAccessImpl::findHistory(const ServiceTime& from, const ServiceTime& to,
                                                  unsigned char backward, unsigned int max,
                                                  const ServiceCursor& cursor,
                                                  std::vector<ServiceEvent>* state,
                                                  std::vector<ServiceEvent>* events, ServiceCursor* next,
                                                  unsigned char* more) {
    const ptime begin = timeFromService(from);
    const ptime end = timeFromService(to);
    checkSpan(begin, end);
    const HistoryPage page = RecordingSession::forQuery().queries().findHistory(
        begin, end, backward != 0, std::min(max, kMostReplyEntries), fromService(cursor));
    *state = toService(page.state);
    *events = toService(page.events);
    *next = toService(page.next);
    *more = page.more ? 1 : 0;
    return 0;
}

unsigned int RecordingDataAccessImpl::openRecords(unsigned int trackType, const ServiceTime& from,
                                                  const ServiceTime& to, int* fd) {
    const ptime begin = timeFromService(from);
    const ptime end = timeFromService(to);
    checkSpan(begin, end);
    *fd = _streams->open(RecordingSession::forQuery().card().track(dataTrack(trackType)), begin, end,
                         callingClient());
    return 0;
}

} // namespace quarn::calvane
