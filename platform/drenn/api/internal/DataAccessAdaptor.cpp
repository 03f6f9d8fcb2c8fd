#include <utility>

#include "drenn/api/internal/CallingClient.h"
#include "drenn/api/internal/DataAccessAdaptor.h"
#include "drenn/api/internal/ServiceRunner.h"

namespace drenn::api {
namespace {

sdbus::Struct<std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t, std::uint32_t> FromEvent(
    const HistoryEvent& event) {
    return {event.time.sec, event.time.usec, event.eventType, event.present, event.trackType};
}

} // namespace

DataAccessAdaptor::DataAccessAdaptor(sdbus::IConnection& connection, const std::string& path,
                                     DrennApiRecordingDataAccessTargetImplBase& implementation)
    : AdaptorInterfaces(connection, path), implementation_(implementation) {
    registerAdaptor();
}

DataAccessAdaptor::~DataAccessAdaptor() {
    unregisterAdaptor();
}

ServiceCursor DataAccessAdaptor::ToCursor(const Cursor& cursor) {
    return {{std::get<0>(cursor), std::get<1>(cursor)}, std::get<2>(cursor)};
}

DataAccessAdaptor::Cursor DataAccessAdaptor::FromCursor(const ServiceCursor& cursor) {
    return {cursor.time.sec, cursor.time.usec, cursor.passed};
}

std::vector<DataAccessAdaptor::Event> DataAccessAdaptor::FromEvents(const std::vector<HistoryEvent>& events) {
    std::vector<Event> result;
    result.reserve(events.size());
    for (const HistoryEvent& event : events) {
        result.push_back(FromEvent(event));
    }
    return result;
}

std::tuple<std::uint32_t, std::uint32_t> DataAccessAdaptor::getFirstRecordingHistoryEventTime() {
    U sec = 0, usec = 0;
    AnswerCall("getFirstRecordingHistoryEventTime",
               [&] { return implementation_.getFirstRecordingHistoryEventTime(&sec, &usec); });
    return {sec, usec};
}

std::tuple<DataAccessAdaptor::Event, DataAccessAdaptor::Cursor> DataAccessAdaptor::getRecordingHistoryEvent(
    const Cursor& from) {
    HistoryEvent event;
    ServiceCursor next;
    AnswerCall("getRecordingHistoryEvent",
               [&] { return implementation_.getRecordingHistoryEvent(ToCursor(from), &event, &next); });
    return {FromEvent(event), FromCursor(next)};
}

std::tuple<std::vector<DataAccessAdaptor::Record>, DataAccessAdaptor::Cursor, std::uint8_t>
DataAccessAdaptor::getMetadata(const Cursor& from, const U& toSec, const U& toUsec) {
    std::vector<PayloadRecord> records;
    ServiceCursor next;
    Y more = 0;
    AnswerCall("getMetadata", [&] {
        return implementation_.getMetadata(ToCursor(from), {toSec, toUsec}, &records, &next, &more);
    });
    std::vector<Record> result;
    result.reserve(records.size());
    for (PayloadRecord& record : records) {
        result.emplace_back(record.time.sec, record.time.usec, std::move(record.payload));
    }
    return {std::move(result), FromCursor(next), more};
}

std::vector<DataAccessAdaptor::Interval> DataAccessAdaptor::getCoverage(const U& trackType, const U& fromSec,
                                                                        const U& fromUsec, const U& toSec,
                                                                        const U& toUsec) {
    std::vector<CoverageInterval> intervals;
    AnswerCall("getCoverage", [&] {
        return implementation_.getCoverage(trackType, {fromSec, fromUsec}, {toSec, toUsec}, &intervals);
    });
    return FromIntervals(intervals);
}

std::vector<DataAccessAdaptor::Interval> DataAccessAdaptor::FromIntervals(
    const std::vector<CoverageInterval>& intervals) {
    std::vector<Interval> result;
    result.reserve(intervals.size());
    for (const CoverageInterval& interval : intervals) {
        result.emplace_back(interval.start.sec, interval.start.usec, interval.end.sec, interval.end.usec,
                            interval.reason);
    }
    return result;
}

std::tuple<std::vector<DataAccessAdaptor::Interval>, std::uint32_t, std::uint32_t, std::uint8_t>
DataAccessAdaptor::findCoverage(const U& trackType, const U& fromSec, const U& fromUsec, const U& toSec,
                                const U& toUsec, const U& max) {
    std::vector<CoverageInterval> intervals;
    ServiceTime next;
    Y more = 0;
    AnswerCall("findCoverage", [&] {
        return implementation_.findCoverage(trackType, {fromSec, fromUsec}, {toSec, toUsec}, max, &intervals,
                                            &next, &more);
    });
    return {FromIntervals(intervals), next.sec, next.usec, more};
}

std::tuple<std::vector<DataAccessAdaptor::Event>, std::vector<DataAccessAdaptor::Event>,
           DataAccessAdaptor::Cursor, std::uint8_t>
DataAccessAdaptor::findHistory(const U& fromSec, const U& fromUsec, const U& toSec, const U& toUsec,
                               const Y& backward, const U& max, const Cursor& cursor) {
    std::vector<HistoryEvent> state;
    std::vector<HistoryEvent> events;
    ServiceCursor next;
    Y more = 0;
    AnswerCall("findHistory", [&] {
        return implementation_.findHistory({fromSec, fromUsec}, {toSec, toUsec}, backward, max,
                                           ToCursor(cursor), &state, &events, &next, &more);
    });
    return {FromEvents(state), FromEvents(events), FromCursor(next), more};
}

sdbus::UnixFd DataAccessAdaptor::openRecords(const U& trackType, const U& fromSec, const U& fromUsec,
                                             const U& toSec, const U& toUsec) {
    const CallingClient client(getObject().getCurrentlyProcessedMessage()->getSender());
    int fd = -1;
    AnswerCall("openRecords", [&] {
        return implementation_.openRecords(trackType, {fromSec, fromUsec}, {toSec, toUsec}, &fd);
    });
    return {fd, sdbus::adopt_fd};
}

} // namespace drenn::api
