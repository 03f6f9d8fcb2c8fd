#pragma once

#include <functional>

#include "record_source/RecordSource.h"

namespace calvane_recording {

class RecordingClient;

/// The recorder that runs, asked through its services.
///
/// Errors: those of RecordingClient and RecordReader.
class ServiceSource : public IRecordSource {
public:
    ServiceSource(RecordingClient& client, std::function<bool()> isInterrupted);

    Span GetSpan(TrackKind track) override;
    std::unique_ptr<IRecords> Open(TrackKind track, const Span& span) override;
    std::optional<KeyFrame> FindKeyFrame(TrackKind track, Time at) override;

private:
    RecordingClient& client_;
    const std::function<bool()> isInterrupted_;
};

} // namespace calvane_recording
