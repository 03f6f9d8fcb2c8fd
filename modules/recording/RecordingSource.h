#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "RecordFeed.h"
#include "calvane/buffer/BufferFormat.h"
#include "calvane/graph/MultiOutputSourcePlugin.h"

namespace quarn::calvane {
class CalvaneEnv;
}

namespace recording {

/// Plays a stretch of the device's recording into a pipeline, through the recorder's services: each record is a buffer, on
/// one of the outputs "video", "audio" and "metadata", in the order of their times over all of them. What no output is
/// connected for is not read.
///
/// A buffer has the record's time, in UTC, and what RecordingSink made a record of: the track's format, and the metadata
/// "KeyFrame", "FirstAfterGap", "CompositionOffsetUs", and "info" at key frames and where it changes. A recorder that
/// gets these buffers back has data of that time already, so RecordingSink needs clock = 1 there: times that go back
/// replace what is recorded later.
///
/// Settings: "from", "to": times as calvane-recording takes them; all that is recorded at the start, unless given;
///           "realtime" (1): as the time of the records passes, 0: as fast as possible; "skip.gaps" (0): does not
///           wait where nothing is recorded for more than a second.
///
/// Threads:   the pipeline's; records are read ahead on a thread of its own.
/// Errors:    construction throws for a time that is none. The pipeline fails when the recorder does not run, cannot be
///            asked, or ends too early. Records that cannot be read, or were erased meanwhile, are counted and logged.
class RecordingSource : public quarn::calvane::MultiOutputSourcePlugin {
public:
    RecordingSource(quarn::calvane::CalvaneEnv* env, const quarn::calvane::IPluginConfiguration& config);
    ~RecordingSource() override;

    void OnConnectToSink(const std::string& name, quarn::calvane::Sink* sink) override;
    void PipelinesConstructed() override;
    bool OnGenerateBuffer(quarn::osa::TimeStruct& next) override;

private:
    using TrackKind = RecordFeed::TrackKind;
    struct Output {
        std::unique_ptr<quarn::calvane::Source> source;
        quarn::calvane::BufferFormat format;
        std::shared_ptr<const calvane_recording::InfoMap> info;
        std::string infoText; // The same.
    };

    using MultiOutputSourcePlugin::OnConnectToSink;
    calvane_recording::Span ReadSpan(const quarn::calvane::IPluginConfiguration& config) const;
    std::optional<RecordFeed::Item> NextItem();
    std::int64_t GetWait();
    void Push(RecordFeed::Item item);
    bool TakeInfo(Output& output, const RecordFeed::Item& item);
    void LogLosses();

    const bool isRealtime_;
    const bool skipsGaps_;
    std::map<TrackKind, Output> outputs_;
    std::set<TrackKind> connected_;
    bool isStarted_ = false;
    std::optional<RecordFeed::Item> pending_; // Its time has not come yet.
    std::optional<std::int64_t>
        dueDifference_; // From a record's time to when it is due, by the steady clock.
    std::int64_t lastTime_ = 0;
    RecordFeed feed_;
};

} // namespace recording
