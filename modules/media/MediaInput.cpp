#include "MediaInput.h"

extern "C" {
#include <libavcodec/codec_desc.h>
#include <libavdevice/avdevice.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include <sys/stat.h>

#include <array>
#include <optional>
#include <stdexcept>
#include <utility>

#include "HostLookup.h"

namespace calvane_media {

namespace {

constexpr int kMostDamagedInARow = 100;

struct Choice {
    AVMediaType type;
    StreamKind kind;
};
/// In the order in which they are tried for one kind.
constexpr std::array<Choice, 4> kChoices{{{AVMEDIA_TYPE_VIDEO, StreamKind::Video},
                                          {AVMEDIA_TYPE_AUDIO, StreamKind::Audio},
                                          {AVMEDIA_TYPE_DATA, StreamKind::Data},
                                          {AVMEDIA_TYPE_SUBTITLE, StreamKind::Data}}};

bool IsDevice(const AVInputFormat* format) {
    return format != nullptr && format->priv_class != nullptr &&
           AV_IS_INPUT_DEVICE(format->priv_class->category);
}

/// One that makes its data itself, as fast as it is asked to.
bool IsGenerator(const AVInputFormat* format) {
    return IsDevice(format) && std::string(format->name) == "lavfi";
}

bool IsRegularFile(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

const AVInputFormat* FindFormatNamed(const std::string& name) {
    static const bool registered = [] {
        avdevice_register_all();
        return true;
    }();
    return registered && !name.empty() ? av_find_input_format(name.c_str()) : nullptr;
}

std::optional<InputStream> Describe(const AVFormatContext& context, const Choice& choice) {
    auto* const mutableContext =
        const_cast<AVFormatContext*>(&context); // The library asks for it, and only reads.
    const int index = av_find_best_stream(mutableContext, choice.type, -1, -1, nullptr, 0);
    if (index < 0 || (context.streams[index]->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) {
        return std::nullopt;
    }
    const AVStream& stream = *context.streams[index];
    InputStream found{index, choice.kind, CodecParametersPtr(avcodec_parameters_alloc()), stream.time_base,
                      stream.avg_frame_rate.num > 0 ? stream.avg_frame_rate : stream.r_frame_rate};
    if (!found.parameters || avcodec_parameters_copy(found.parameters.get(), stream.codecpar) < 0) {
        throw std::bad_alloc();
    }
    if (avcodec_descriptor_get(found.parameters->codec_id) != nullptr) {
        return found;
    }
    if (choice.kind != StreamKind::Data) {
        return std::nullopt; // Nobody could say what its packets are.
    }
    found.parameters->codec_id = AV_CODEC_ID_BIN_DATA;
    return found;
}

} // namespace

void MediaInput::Close::operator()(AVFormatContext* context) const {
    avformat_close_input(&context);
}

MediaInput::MediaInput(InputSettings settings) : settings_(std::move(settings)) {}

MediaInput::~MediaInput() = default;

bool MediaInput::IsLocal(const InputSettings& settings) {
    const AVInputFormat* const format = FindFormatNamed(settings.format);
    if (IsDevice(format)) {
        return IsGenerator(format);
    }
    return IsRegularFile(settings.url) || settings.url.find("://") == std::string::npos ||
           settings.url.rfind("file:", 0) == 0;
}

void MediaInput::Open() {
    context_.reset();
    const AVInputFormat* const format = FindFormat();
    if (!IsDevice(format) && !IsLocal(settings_)) {
        FindHost();
    }
    AVFormatContext* context = avformat_alloc_context();
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    context->interrupt_callback = {&MediaInput::IsInterrupted, this};
    if (IsDevice(format)) {
        context->flags |= AVFMT_FLAG_NONBLOCK;
    }
    Options options;
    options.Parse(settings_.options);
    if (settings_.url.rfind("rtsp", 0) == 0) {
        options.Default("rtsp_transport", "tcp"); // Nothing is lost on the way.
    }
    BeginToWait();
    const int opened = avformat_open_input(&context, Address().c_str(), format, options.Get());
    if (opened < 0) {
        throw std::runtime_error("Cannot open " + GetName() + ": " + Explain(opened));
    }
    context_.reset(context);
    if (const std::string unused = options.FirstUnused(); !unused.empty()) {
        throw std::runtime_error("Cannot open " + GetName() + ": nothing takes the option \"" + unused +
                                 "\"");
    }
    beginning_ = UtcNow();
    BeginToWait();
    const int found = avformat_find_stream_info(context, nullptr);
    if (found < 0) {
        throw std::runtime_error("Cannot read the streams of " + GetName() + ": " + Explain(found));
    }
    if (GetStreams().empty()) {
        throw std::runtime_error(GetName() + " has no streams of video, audio or data");
    }
    Select({StreamKind::Video, StreamKind::Audio, StreamKind::Data});
}

void MediaInput::FindHost() {
    BeginToWait();
    std::string problem;
    try {
        if (!AwaitHost(settings_.url, [this] { return IsInterrupted(this) != 0; })) {
            problem = Explain(AVERROR_EXIT);
        }
    } catch (const std::runtime_error& error) {
        problem = error.what();
    }
    if (!problem.empty()) {
        throw std::runtime_error("Cannot open " + GetName() + ": " + problem);
    }
}

std::vector<InputStream> MediaInput::GetStreams() const {
    std::vector<InputStream> streams;
    for (const Choice& choice : kChoices) {
        if (streams.empty() || streams.back().kind != choice.kind) {
            if (auto found = Describe(*context_, choice)) {
                streams.push_back(std::move(*found));
            }
        }
    }
    return streams;
}

void MediaInput::Select(const std::set<StreamKind>& kinds) {
    for (unsigned int i = 0; i != context_->nb_streams; ++i) {
        context_->streams[i]->discard = AVDISCARD_ALL;
    }
    for (const InputStream& stream : GetStreams()) {
        if (kinds.count(stream.kind) != 0) {
            context_->streams[stream.index]->discard = AVDISCARD_DEFAULT;
        }
    }
}

MediaInput::Status MediaInput::Read(AVPacket& packet) {
    BeginToWait();
    const int code = av_read_frame(context_.get(), &packet);
    if (code >= 0) {
        damagedInARow_ = 0;
        return av_packet_make_refcounted(&packet) >= 0 ? Status::Packet : Status::Nothing;
    }
    if (code == AVERROR(EAGAIN)) {
        return Status::Nothing;
    }
    problem_ = Explain(code);
    if (code == AVERROR_EOF) {
        return Status::End;
    }
    // A demuxer that stumbles over some bytes usually goes on behind them.
    if (code == AVERROR_INVALIDDATA && ++damagedInARow_ < kMostDamagedInARow) {
        return Status::Damaged;
    }
    return Status::Failed;
}

bool MediaInput::IsLive() const {
    return !IsLocal(settings_) && (IsDevice(context_->iformat) || GetDuration() == 0);
}

std::int64_t MediaInput::GetDuration() const {
    return context_->duration > 0 ? av_rescale(context_->duration, 1'000'000, AV_TIME_BASE) : 0;
}

int MediaInput::IsInterrupted(void* input) {
    const auto& self = *static_cast<const MediaInput*>(input);
    return self.cancelled_ || SteadyNow() > self.deadline_ ? 1 : 0;
}

const AVInputFormat* MediaInput::FindFormat() const {
    const AVInputFormat* const format = FindFormatNamed(settings_.format);
    if (format == nullptr && !settings_.format.empty()) {
        throw std::runtime_error("There is no input format \"" + settings_.format + "\" here");
    }
    return format;
}

/// A file whose name looks like an address is a file all the same.
std::string MediaInput::Address() const {
    return settings_.format.empty() && IsRegularFile(settings_.url) ? "file:" + settings_.url : settings_.url;
}

void MediaInput::BeginToWait() {
    deadline_ = SteadyNow() + settings_.timeoutMicroseconds;
}

std::string MediaInput::Explain(int code) const {
    if (code == AVERROR_EXIT && !cancelled_) {
        return "nothing came for " + std::to_string(settings_.timeoutMicroseconds / 1000) + " ms";
    }
    return ErrorText(code);
}

} // namespace calvane_media
