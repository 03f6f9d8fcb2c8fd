#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <string>
#include <tuple>
#include <vector>

#include "drenn/api/DrennApiRecordingDataAccessTargetImplBase.h"
#include "drenn/api/generated/RecordingDataAccess1Adaptor.h"

namespace drenn::api {

/// The object of "recording_data_access" on the bus: hands calls on to the implementation.
///
/// Threads: its runner's thread only.
class DataAccessAdaptor : public sdbus::AdaptorInterfaces<com::drenn::RecordingDataAccess1_adaptor> {
public:
    DataAccessAdaptor(sdbus::IConnection& connection, const std::string& path,
                      DrennApiRecordingDataAccessTargetImplBase& implementation);
    virtual ~DataAccessAdaptor();

private:
    using U = std::uint32_t;
    using Y = std::uint8_t;
    using Cursor = sdbus::Struct<U, U, U>;
    using Event = sdbus::Struct<U, U, U, Y, U>;
    using Record = sdbus::Struct<U, U, std::vector<Y>>;
    using Interval = sdbus::Struct<U, U, U, U, U>;

    std::tuple<U, U> getFirstRecordingHistoryEventTime() override;
    std::tuple<Event, Cursor> getRecordingHistoryEvent(const Cursor& from) override;
    std::tuple<std::vector<Record>, Cursor, Y> getMetadata(const Cursor& from, const U& toSec,
                                                           const U& toUsec) override;
    std::vector<Interval> getCoverage(const U& trackType, const U& fromSec, const U& fromUsec, const U& toSec,
                                      const U& toUsec) override;
    std::tuple<std::vector<Event>, std::vector<Event>, Cursor, Y> findHistory(const U& fromSec,
                                                                              const U& fromUsec,
                                                                              const U& toSec, const U& toUsec,
                                                                              const Y& backward, const U& max,
                                                                              const Cursor& cursor) override;
    std::tuple<std::vector<Interval>, U, U, Y> findCoverage(const U& trackType, const U& fromSec,
                                                            const U& fromUsec, const U& toSec,
                                                            const U& toUsec, const U& max) override;
    sdbus::UnixFd openRecords(const U& trackType, const U& fromSec, const U& fromUsec, const U& toSec,
                              const U& toUsec) override;

    static std::vector<Interval> FromIntervals(const std::vector<CoverageInterval>& intervals);
    static ServiceCursor ToCursor(const Cursor& cursor);
    static Cursor FromCursor(const ServiceCursor& cursor);
    static std::vector<Event> FromEvents(const std::vector<HistoryEvent>& events);

    DrennApiRecordingDataAccessTargetImplBase& implementation_;
};

} // namespace drenn::api
