#pragma once

#include <memory>

#include "calvane/Export.h"
#include "drenn/api/DrennApiRecordingDataAccessTargetImplBase.h"

namespace quarn::calvane {

class RecordStreams;

/// Answers the service "recording_data_access": the history, metadata and streams of recorded data.
///
/// Threads:  the service's own calls the operations; each open stream has a thread.
/// Errors:   std::runtime_error "Recording is currently disabled" from every operation while there is no recording;
///           std::out_of_range for an unknown track and for a look-up that finds nothing; std::invalid_argument for
///           a span that ends before it begins.
/// Lifetime: ends before RecordingManager's instance does. Destruction ends all streams.
class CALVANE_API RecordingDataAccessImpl : public drenn::api::DrennApiRecordingDataAccessTargetImplBase {
public:
    /// No reply has more payload than this, unless it is of one record.
    static constexpr std::size_t kMostReplyBytes = std::size_t{256} * 1024;
    /// A record that is longer can only be streamed.
    static constexpr std::size_t kLongestReplyRecord = std::size_t{4} * 1024 * 1024;
    /// More records or events does no reply have.
    static constexpr unsigned int kMostReplyEntries = 1000;

    explicit RecordingDataAccessImpl(void* logCookie);
    ~RecordingDataAccessImpl() override;

    /// {0, 0} when there is no history yet.
    unsigned int getFirstRecordingHistoryEventTime(unsigned int* sec, unsigned int* usec) override;
    unsigned int getRecordingHistoryEvent(const drenn::api::ServiceCursor& from,
                                          drenn::api::HistoryEvent* event,
                                          drenn::api::ServiceCursor* next) override;
    unsigned int getMetadata(const drenn::api::ServiceCursor& from, const drenn::api::ServiceTime& to,
                             std::vector<drenn::api::PayloadRecord>* records, drenn::api::ServiceCursor* next,
                             unsigned char* more) override;
    unsigned int getCoverage(unsigned int trackType, const drenn::api::ServiceTime& from,
                             const drenn::api::ServiceTime& to,
                             std::vector<drenn::api::CoverageInterval>* intervals) override;
    unsigned int findHistory(const drenn::api::ServiceTime& from, const drenn::api::ServiceTime& to,
                             unsigned char backward, unsigned int max,
                             const drenn::api::ServiceCursor& cursor,
                             std::vector<drenn::api::HistoryEvent>* state,
                             std::vector<drenn::api::HistoryEvent>* events, drenn::api::ServiceCursor* next,
                             unsigned char* more) override;
    unsigned int openRecords(unsigned int trackType, const drenn::api::ServiceTime& from,
                             const drenn::api::ServiceTime& to, int* fd) override;
    unsigned int findCoverage(unsigned int trackType, const drenn::api::ServiceTime& from,
                              const drenn::api::ServiceTime& to, unsigned int max,
                              std::vector<drenn::api::CoverageInterval>* intervals,
                              drenn::api::ServiceTime* next, unsigned char* more) override;

private:
    const std::unique_ptr<RecordStreams> _streams;
};

} // namespace quarn::calvane
