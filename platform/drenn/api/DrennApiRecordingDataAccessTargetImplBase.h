#pragma once

#include <cstdint>
#include <vector>

#include "drenn/Export.h"
#include "drenn/api/ServiceTarget.h"

namespace drenn::api {

/// A point in time: seconds since 1970-01-01 UTC, and microseconds.
struct ServiceTime {
    unsigned int sec = 0;
    unsigned int usec = 0;
};

/// Where to go on reading: after `passed` entries of exactly this time. It stays valid when older data is erased.
struct ServiceCursor {
    ServiceTime time;
    unsigned int passed = 0;
};

/// An entry of the recording's history.
struct HistoryEvent {
    ServiceTime time;
    unsigned int eventType = 0; ///< 0: the recording started or stopped. 1: a track's data came or went.
    unsigned char present = 0;  ///< 1: started, came. 0: stopped, went.
    unsigned int trackType = 0; ///< For eventType 1: 0 video, 1 audio, 2 metadata.
};

/// One record's payload.
struct PayloadRecord {
    ServiceTime time;
    std::vector<std::uint8_t> payload;
};

/// A stretch of time in which a track has data, or why it has none. Both ends belong to it.
struct CoverageInterval {
    ServiceTime start;
    ServiceTime end;
    unsigned int reason =
        0; ///< 0: data. 1 stopped, 2 no card, 3 erased, 4 dropped, 5 clock, 6 nothing known.
};

/// What a program derives from to answer the service "recording_data_access"; DrennApiRecordingDataAccessTargetRun
/// puts it on the bus. docs/reference/bus-interfaces.md describes the operations as clients see them. Results,
/// errors and threads as with DrennApiRecordingInformationTargetImplBase.
class DRENN_API DrennApiRecordingDataAccessTargetImplBase : public ServiceTarget {
public:
    explicit DrennApiRecordingDataAccessTargetImplBase(void* logCookie);
    ~DrennApiRecordingDataAccessTargetImplBase() override;
    DrennApiRecordingDataAccessTargetImplBase(const DrennApiRecordingDataAccessTargetImplBase&) = delete;
    DrennApiRecordingDataAccessTargetImplBase& operator=(const DrennApiRecordingDataAccessTargetImplBase&) =
        delete;

    virtual unsigned int getFirstRecordingHistoryEventTime(unsigned int* sec, unsigned int* usec) = 0;
    /// The event at the cursor or the first one after it, and the cursor to ask for the next one with. Throws
    /// when there is none.
    virtual unsigned int getRecordingHistoryEvent(const ServiceCursor& from, HistoryEvent* event,
                                                  ServiceCursor* next) = 0;
    /// Metadata records from the cursor up to `to`, included; as many as fit into one reply. `more`: whether
    /// there are others, from `next` on.
    virtual unsigned int getMetadata(const ServiceCursor& from, const ServiceTime& to,
                                     std::vector<PayloadRecord>* records, ServiceCursor* next,
                                     unsigned char* more) = 0;
    /// Without a gap from `from` to `to`, in order.
    virtual unsigned int getCoverage(unsigned int trackType, const ServiceTime& from, const ServiceTime& to,
                                     std::vector<CoverageInterval>* intervals) = 0;
    /// Up to `max` events between `from` and `to`, both included, oldest first or newest first. `state` holds
    /// what held at `from` (the last event before it of the recording and of each track). `cursor` starts as
    /// {from, 0}, or {to, 0} backwards, and goes on with `next` while `more` is not 0.
    virtual unsigned int findHistory(const ServiceTime& from, const ServiceTime& to, unsigned char backward,
                                     unsigned int max, const ServiceCursor& cursor,
                                     std::vector<HistoryEvent>* state, std::vector<HistoryEvent>* events,
                                     ServiceCursor* next, unsigned char* more) = 0;
    /// Opens a stream of a track's records between two points in time. `*fd` is the end to read from, the
    /// caller's to close; the bus layer hands it to the client.
    virtual unsigned int openRecords(unsigned int trackType, const ServiceTime& from, const ServiceTime& to,
                                     int* fd) = 0;
    /// As getCoverage, up to `max` stretches. `more`: whether there are others, from `next` on; the first of them may go on
    /// with the last of these.
    virtual unsigned int findCoverage(unsigned int trackType, const ServiceTime& from, const ServiceTime& to,
                                      unsigned int max, std::vector<CoverageInterval>* intervals,
                                      ServiceTime* next, unsigned char* more) = 0;
};

} // namespace drenn::api
