#pragma once

#include <memory>
#include <mutex>

#include "calvane/recording/internal/IRecordingListener.h"

namespace drenn::api {
class DrennApiRecordingDataAccessTargetRun;
class DrennApiRecordingInformationTargetRun;
} // namespace drenn::api

namespace quarn::calvane {

class RecordingInformationImpl;

/// The services for playback while they run. What happens to the recording becomes events of "recording_information".
///
/// Threads:  start and stop from one; everything else from any.
/// Lifetime: start -> stop, and again. stop waits for the calls under way.
class RecordingServices : public IRecordingListener {
public:
    RecordingServices();
    ~RecordingServices() override;
    RecordingServices(const RecordingServices&) = delete;
    RecordingServices& operator=(const RecordingServices&) = delete;

    void start(void* logCookie);
    void stop();
    /// Null while they do not run.
    std::shared_ptr<RecordingInformationImpl> information() const;

    void onDataPresent(track_type type, bool present) override;
    void onDataDeleted(track_type type, const boost::posix_time::ptime& first,
                       const boost::posix_time::ptime& last) override;

private:
    std::unique_ptr<drenn::api::DrennApiRecordingInformationTargetRun> _informationRun;
    std::unique_ptr<drenn::api::DrennApiRecordingDataAccessTargetRun> _dataAccessRun;

    mutable std::mutex _mutex;
    std::shared_ptr<RecordingInformationImpl> _information; // Guarded by _mutex.
};

} // namespace quarn::calvane
