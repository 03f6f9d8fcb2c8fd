#pragma once

#include <map>
#include <optional>
#include <string>

#include "GapWatch.h"
#include "calvane/buffer/BufferFormat.h"
#include "calvane/graph/BasicSinkPlugin.h"
#include "calvane/recording/track_type.h"

namespace quarn::calvane {
class CalvaneEnv;
class RecordingTrack;
} // namespace quarn::calvane

namespace recording {

/// Records every buffer on a track of the device's recording (docs/reference/record-format.md).
///
/// A record's time is the buffer's timestamp, in UTC; the clock's if the buffer has none. The track's info holds what
/// the buffers' format says (see MakeTrackInfo), before that what their metadata "info" says, an info map as text, and
/// before that the info settings. A buffer with the metadata "KeyFrame" other than 0 is marked as one to start with, one
/// with "FirstAfterGap" as one that data is missing in front of, and "CompositionOffsetUs" becomes the record's
/// composition offset, in microseconds. Data counts as absent when no buffer came for much longer than usual, and for
/// "gap.timeout.ms" at least.
///
/// The pipeline goes on when a buffer cannot be recorded, because there is no card, say, or the clock is not set:
/// it is dropped, and the first of a row is logged.
///
/// Settings: "track" (required): video, audio or metadata; "gap.timeout.ms" (500), from 1 to 1000; "rate.millihz" (0): what
///           is usual, in buffers in 1000 s, learned if it is 0; "sparse" (0): 1 for data that comes whenever it
///           comes, and is absent only when the plugin ends; "clock" (0): 1
///           takes the time of all records from the clock; "info." and a key: a value for the track's info, which
///           goes before what the format says.
class RecordingSink : public quarn::calvane::BasicSinkPlugin {
public:
    RecordingSink(quarn::calvane::CalvaneEnv* env, const quarn::calvane::IPluginConfiguration& config);
    ~RecordingSink() override;

    void OnBuffer(const quarn::calvane::Sink* sink, quarn::calvane::Buffer* buffer) override;

private:
    quarn::calvane::track_type ReadTrack(const quarn::calvane::IPluginConfiguration& config) const;
    std::optional<UsualInterval> ReadInterval(const quarn::calvane::IPluginConfiguration& config) const;
    void ReadInfo(const quarn::calvane::IPluginConfiguration& config);
    void Record(const quarn::calvane::Buffer& buffer);
    void UpdateInfo(quarn::calvane::RecordingTrack& track, const quarn::calvane::Buffer& buffer);
    boost::posix_time::ptime TimeOf(const quarn::calvane::Buffer& buffer) const;
    void TakeLoss(const std::string& reason);

    const bool useClock_;
    const quarn::calvane::track_type track_;
    std::map<std::string, std::string> givenInfo_;
    std::optional<quarn::calvane::BufferFormat> format_; // Which the track's info was made from.
    std::string infoText_;                               // The same.
    std::map<std::string, std::string> bufferInfo_;      // From it.
    unsigned long long lost_ = 0;                        // In this row.
    GapWatch gaps_;
};

} // namespace recording
