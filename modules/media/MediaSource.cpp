#include "MediaSource.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/parseutils.h>
}

#include <algorithm>
#include <array>
#include <utility>

#include "FileFeed.h"
#include "LiveFeed.h"
#include "MediaInput.h"
#include "calvane/config/IPluginConfiguration.h"
#include "quarn/core/Logger.h"

namespace calvane_media {

using namespace quarn::calvane;
using quarn::osa::TimeStruct;

namespace {

constexpr std::int64_t kDay = 24LL * 3600 * 1'000'000;
constexpr std::int64_t kLongestWait = 100'000; // A stop of the pipeline waits for it.
constexpr std::int64_t kLargestJumpOfLive = 10'000'000;

struct OutputName {
    StreamKind kind;
    const char* name;
};
constexpr std::array<OutputName, 3> kOutputNames{
    {{StreamKind::Video, "video"}, {StreamKind::Audio, "audio"}, {StreamKind::Data, "data"}}};

const char* NameOf(StreamKind kind) {
    return std::find_if(kOutputNames.begin(), kOutputNames.end(),
                        [kind](const OutputName& output) { return output.kind == kind; })
        ->name;
}

std::int64_t ToMicroseconds(std::int64_t stamp, AVRational timeBase) {
    return av_rescale_q(stamp, timeBase, {1, 1'000'000});
}

std::optional<std::int64_t> StampOf(std::int64_t stamp, AVRational timeBase) {
    return stamp != AV_NOPTS_VALUE ? std::optional(ToMicroseconds(stamp, timeBase)) : std::nullopt;
}

} // namespace

MediaSource::MediaSource(CalvaneEnv*, const IPluginConfiguration& config)
    : MultiOutputSourcePlugin(config),
      isRealtime_(config.GetIntOrDefault("realtime", 1) != 0),
      start_(ReadStart(config)) {
    const bool loops = config.GetIntOrDefault("loop", 0) != 0;
    const bool reconnects = config.GetIntOrDefault("reconnect", 1) != 0;
    const InputSettings input = ReadInput(config);
    for (const OutputName& output : kOutputNames) {
        AddOutput(output.kind, output.name);
    }
    OpenInput(input, loops, reconnects);
}

MediaSource::~MediaSource() {
    feed_.reset();
    if (!ended_) {
        LogTotal();
    }
}

InputSettings MediaSource::ReadInput(const IPluginConfiguration& config) const {
    InputSettings input;
    input.format = config.GetStringOrDefault("format", "");
    input.options = config.GetStringOrDefault("options", "");
    const int timeout = config.GetIntOrDefault("timeout.ms", 10000);
    input.timeoutMicroseconds = std::int64_t{timeout} * 1000;
    input.url = config.GetStringOrDefault("url", "");
    if (input.url.empty()) {
        ErrorInSetting("url", "url must name a file, an address or a device");
    }
    if (timeout < 100 || timeout > 600'000) {
        ErrorInSetting("timeout.ms", "timeout.ms must be from 100 to 600000, not " + std::to_string(timeout));
    }
    try {
        Options().Parse(input.options);
    } catch (const std::exception& problem) {
        ErrorInSetting("options", std::string("options: ") + problem.what());
    }
    return input;
}

std::optional<std::int64_t> MediaSource::ReadStart(const IPluginConfiguration& config) const {
    std::string text = config.GetStringOrDefault("start", "");
    if (text.empty()) {
        return std::nullopt;
    }
    const std::string given = text;
    if (text.find_first_of("Zz+", 10) == std::string::npos && text.find('-', 10) == std::string::npos) {
        text += 'Z';
    }
    std::int64_t start = 0;
    if (text.size() < 11 || text[4] != '-' || av_parse_time(&start, text.c_str(), 0) < 0 || start < 0) {
        ErrorInSetting("start", "start must be a time such as 2026-11-21T13:00:00Z, not \"" + given + "\"");
    }
    return start;
}

void MediaSource::AddOutput(StreamKind kind, const char* name) {
    std::unique_ptr<Source> source(CreateSource(name));
    Source& place = *source;
    outputs_.emplace(kind, Output{std::move(source), MediaOutput(place)});
}

void MediaSource::OpenInput(const InputSettings& input, bool loops, bool reconnects) {
    if (!MediaInput::IsLocal(input)) {
        feed_ = std::make_unique<LiveFeed>(GetName(), input, reconnects);
        return;
    }
    try {
        auto file = std::make_unique<FileFeed>(input, loops);
        AnnounceStreams(file->Describe().streams);
        feed_ = std::move(file);
    } catch (const std::runtime_error& problem) {
        ErrorInSetting("url", problem.what());
    }
}

void MediaSource::OnConnectToSink(const std::string& name, Sink* sink) {
    MultiOutputSourcePlugin::OnConnectToSink(name, sink);
    for (const OutputName& output : kOutputNames) {
        if (name == output.name) {
            connected_.insert(output.kind);
        }
    }
}

void MediaSource::PipelinesConstructed() {
    if (!std::exchange(started_, true)) {
        feed_->Start(connected_);
    }
}

bool MediaSource::OnGenerateBuffer(TimeStruct& next) {
    if (ended_) {
        return false;
    }
    if (!pending_ && !Handle(feed_->Next())) {
        ended_ = true;
        LogTotal();
        return false;
    }
    if (pending_) {
        const std::int64_t wait = GetWait();
        if (wait > 0) {
            next = TimeStruct(0, static_cast<unsigned int>(std::min(wait, kLongestWait)));
        } else {
            Deliver();
        }
    }
    return true;
}

/// False at the end.
bool MediaSource::Handle(FeedEvent event) {
    switch (event.type) {
        case FeedEvent::Type::Opened:
            Open(std::move(event));
            break;
        case FeedEvent::Type::Packet:
            Take(std::move(event.packet), event.time);
            break;
        case FeedEvent::Type::Damaged:
            CountDamage(event.text);
            MarkGap(false);
            break;
        case FeedEvent::Type::Lost:
            logger->Warning("%s", event.text.c_str());
            break;
        case FeedEvent::Type::End:
            return false;
        case FeedEvent::Type::Failed:
            ended_ = true;
            LogTotal();
            Error(event.text);
        case FeedEvent::Type::Nothing:
            break;
    }
    return true;
}

void MediaSource::Open(FeedEvent event) {
    isLive_ = event.isLive;
    stamps_.SetMostForward(isLive_ ? kLargestJumpOfLive : event.duration > 0 ? event.duration : kDay);
    if (!opened_ || isLive_) {
        BeginRun(event);
    }
    stamps_.Restart();
    if (opened_ && isLive_) {
        MarkGap(false);
    }
    opened_ = true;
    AnnounceStreams(std::move(event.streams));
}

void MediaSource::BeginRun(const FeedEvent& event) {
    const bool isDated = start_ && !isLive_;
    if (start_ && isLive_ && !opened_) {
        logger->Warning("start is not for live input; the time is that of its arrival");
    }
    paceLead_ = isLive_ || isRealtime_ || isDated ? 0 : event.duration;
    clock_.Begin(isDated ? *start_ : isLive_ ? event.time : UtcNow() - paceLead_);
    follows_ = !isDated && (isLive_ || isRealtime_);
    paces_ = !isLive_ && (isRealtime_ || !isDated);
    paceStamp_.reset();
}

void MediaSource::AnnounceStreams(std::vector<InputStream> streams) {
    streams_.clear();
    for (auto& [kind, output] : outputs_) {
        output.packets.Close();
    }
    for (InputStream& stream : streams) {
        Output& output = outputs_.at(stream.kind);
        const AVRational rate = stream.frameRate;
        streams_[stream.index] = {&output, stream.timeBase,
                                  rate.num > 0 ? av_rescale(1'000'000, rate.den, rate.num) : 0,
                                  stream.parameters->video_delay};
        output.packets.Open(std::move(stream));
    }
    for (const StreamKind kind : connected_) {
        if (!outputs_.at(kind).packets.IsOpen()) {
            logger->Warning("The input has nothing for the output %s", NameOf(kind));
        }
    }
}

void MediaSource::Take(PacketPtr packet, std::int64_t arrival) {
    const auto found = streams_.find(packet->stream_index);
    if (found == streams_.end() || packet->size <= 0) {
        return;
    }
    if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0) {
        CountDamage("a packet is not whole");
    }
    Stream& stream = found->second;
    const StampLine::Stamp stamp = StampPacket(stream, *packet);
    const auto presentation = StampOf(packet->pts, stream.timeBase);
    if (stamp.jumped) {
        CountDamage("the time stamps jumped");
        MarkGap(false);
    }
    if (!paceStamp_) {
        paceStamp_ = stamp.value + paceLead_;
        paceBegin_ = SteadyNow();
    }
    const std::int64_t offset = presentation ? *presentation + stamp.shift - stamp.value : 0;
    pending_ = Pending{std::move(packet), stream.output, stamp.value, offset, arrival};
}

/// Some containers have no decode times. In front of the first picture there is room for those that it may be delayed by;
/// the others follow it.
StampLine::Stamp MediaSource::StampPacket(Stream& stream, const AVPacket& packet) {
    auto decoding = StampOf(packet.dts, stream.timeBase);
    if (!decoding && !std::exchange(stream.begun, true)) {
        decoding = StampOf(packet.pts, stream.timeBase);
        if (decoding) {
            *decoding -= stream.delay * stream.frame;
        }
    }
    const bool isPicture = stream.frame != 0;
    return stamps_.Next(packet.stream_index, decoding,
                        isPicture ? stream.frame : ToMicroseconds(packet.duration, stream.timeBase));
}

std::int64_t MediaSource::GetWait() const {
    return paces_ ? paceBegin_ + (pending_->stamp - *paceStamp_) - SteadyNow() : 0;
}

void MediaSource::Deliver() {
    Pending packet = std::move(*pending_);
    pending_.reset();
    std::int64_t time = clock_.Map(packet.stamp);
    if (follows_ && clock_.Follow(time, isLive_ ? packet.arrival : UtcNow())) {
        const std::int64_t dated = clock_.Map(packet.stamp);
        logger->Warning("The time jumped by %lld ms, as the clock did or the input",
                        static_cast<long long>((dated - time) / 1000));
        MarkGap(true);
        time = dated;
    }
    if (!packet.output->packets.Push(std::move(packet.packet), time, packet.compositionOffset)) {
        CountDamage("a time stamp lies before the last one");
    }
}

void MediaSource::CountDamage(const std::string& what) {
    if (damaged_++ == 0) {
        logger->Warning("The input is damaged: %s", what.c_str());
    }
}

void MediaSource::MarkGap(bool mayGoBack) {
    for (auto& [kind, output] : outputs_) {
        output.packets.MarkGap(mayGoBack);
    }
}

void MediaSource::LogTotal() {
    std::string total;
    for (const auto& [kind, output] : outputs_) {
        if (output.packets.GetCount() != 0) {
            total += (total.empty() ? "" : ", ") + std::to_string(output.packets.GetCount()) + " of " +
                     NameOf(kind);
        }
    }
    logger->Information("Packets: %s; damaged: %llu", total.empty() ? "none" : total.c_str(), damaged_);
}

} // namespace calvane_media
