#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Library.h"
#include "MediaOutput.h"
#include "PacketClock.h"
#include "PacketFeed.h"
#include "StampLine.h"
#include "calvane/graph/MultiOutputSourcePlugin.h"

namespace quarn::calvane {
class CalvaneEnv;
}

namespace calvane_media {

struct InputSettings;

/// Reads a file, a stream's address or a device, and pushes each packet, undecoded and without copying it, as a buffer
/// through one of the outputs "video", "audio" and "data" (see MediaOutput). Of each kind it takes the stream that the
/// library finds best. What no output is connected for is not read.
///
/// A packet's time is its decode time in UTC. A run of packets begins at the setting "start"; otherwise live input at the
/// time when it came, a file now, or, if it is read as fast as possible, so long ago as it is long. Within a run, time
/// never goes back, unless the device's clock is set back while live input is read.
///
/// Settings: "url" (required); "format": of the input, needed for devices (v4l2, alsa, lavfi); "options" for the library;
///           "realtime" (1): a file is read as its time passes, 0: as fast as possible; "loop" (0): a file is read again
///           and again; "start": a time in UTC such as 2026-11-21T13:00:00Z; "reconnect" (1): live input that is lost is
///           opened again; "timeout.ms" (10000): the longest silence of an input.
///
/// Threads:   the pipeline's; live input is read on a thread of its own.
/// Errors:    construction throws for settings that make no sense and for a file that cannot be opened. Damaged input is
///            passed over, counted and logged. The pipeline fails when live input is not to be opened again and fails.
class MediaSource : public quarn::calvane::MultiOutputSourcePlugin {
public:
    MediaSource(quarn::calvane::CalvaneEnv* env, const quarn::calvane::IPluginConfiguration& config);
    ~MediaSource() override;

    void OnConnectToSink(const std::string& name, quarn::calvane::Sink* sink) override;
    void PipelinesConstructed() override;
    bool OnGenerateBuffer(quarn::osa::TimeStruct& next) override;

private:
    struct Output {
        std::unique_ptr<quarn::calvane::Source> source;
        MediaOutput packets;
    };
    struct Stream {
        Output* output = nullptr;
        AVRational timeBase{0, 1};
        std::int64_t frame = 0; // How long a picture usually is, in microseconds; 0: not known.
        int delay = 0;          // So many pictures come out of the decoder later than they went in.
        bool begun = false;
    };
    /// A packet whose time has not come yet.
    struct Pending {
        PacketPtr packet;
        Output* output = nullptr;
        std::int64_t stamp = 0;
        std::int64_t compositionOffset = 0;
        std::int64_t arrival = 0;
    };

    using MultiOutputSourcePlugin::OnConnectToSink;
    InputSettings ReadInput(const quarn::calvane::IPluginConfiguration& config) const;
    std::optional<std::int64_t> ReadStart(const quarn::calvane::IPluginConfiguration& config) const;
    void AddOutput(StreamKind kind, const char* name);
    void OpenInput(const InputSettings& input, bool loops, bool reconnects);
    bool Handle(FeedEvent event);
    void Open(FeedEvent event);
    void BeginRun(const FeedEvent& event);
    void AnnounceStreams(std::vector<InputStream> streams);
    void Take(PacketPtr packet, std::int64_t arrival);
    StampLine::Stamp StampPacket(Stream& stream, const AVPacket& packet);
    std::int64_t GetWait() const;
    void Deliver();
    void CountDamage(const std::string& what);
    void MarkGap(bool mayGoBack);
    void LogTotal();

    const LibraryLog libraryLog_;
    const bool isRealtime_;
    const std::optional<std::int64_t> start_;
    std::map<StreamKind, Output> outputs_;
    std::set<StreamKind> connected_;
    std::unique_ptr<PacketFeed> feed_;
    bool started_ = false;
    bool ended_ = false;

    // The run.
    std::map<int, Stream> streams_; // By their index in the input.
    bool opened_ = false;           // Before.
    bool isLive_ = false;
    bool paces_ = false;
    bool follows_ = false; // The device's clock.
    StampLine stamps_;
    PacketClock clock_;
    std::int64_t paceBegin_ = 0; // By the steady clock, when a packet of stamp paceStamp_ is due.
    std::optional<std::int64_t> paceStamp_;
    std::int64_t paceLead_ = 0; // So much of the input is due at once.
    std::optional<Pending> pending_;
    unsigned long long damaged_ = 0;
};

} // namespace calvane_media
