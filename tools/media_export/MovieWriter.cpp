#include "media_export/MovieWriter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "media_export/StreamClock.h"

namespace calvane_export {
namespace {

constexpr int kBufferBytes = 256 * 1024;
/// A fragment of a file without video ends after so many microseconds.
constexpr int kFragmentTime = 2'000'000;

struct Form {
    const char* name;   ///< Of file names.
    const char* format; ///< The library's name.
};
constexpr std::array<Form, 3> kForms{{{"mp4", "mp4"}, {"mkv", "matroska"}, {"ts", "mpegts"}}};

const Form& FormOf(Container container) {
    return kForms.at(static_cast<std::size_t>(container));
}

/// What MPEG transport streams have a type for; the library would write anything else as private data, which no player
/// knows.
constexpr std::array<AVCodecID, 12> kOfTransportStreams{
    AV_CODEC_ID_H264,  AV_CODEC_ID_HEVC, AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_MPEG2VIDEO,
    AV_CODEC_ID_MPEG4, AV_CODEC_ID_AAC,  AV_CODEC_ID_MP2,        AV_CODEC_ID_MP3,
    AV_CODEC_ID_AC3,   AV_CODEC_ID_EAC3, AV_CODEC_ID_OPUS,       AV_CODEC_ID_SMPTE_KLV};

std::string ErrorText(int error) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(error, text.data(), text.size());
    return text.data();
}

} // namespace

struct MovieWriter::Stream {
    AVStream* stream;
    StreamClock clock;
};

Container ParseContainer(const std::string& name) {
    for (std::size_t i = 0; i != kForms.size(); ++i) {
        if (name == kForms[i].name) {
            return static_cast<Container>(i);
        }
    }
    throw std::invalid_argument("Not a format of files: \"" + name + "\" (mp4, mkv or ts)");
}

const char* NameOf(Container container) {
    return FormOf(container).name;
}

bool CanHoldText(Container container) {
    return container != Container::MpegTs;
}

void MovieWriter::FreeContext::operator()(AVFormatContext* context) const {
    if (context->pb != nullptr) {
        av_freep(&context->pb->buffer);
        avio_context_free(&context->pb);
    }
    avformat_free_context(context);
}

MovieWriter::MovieWriter(IOutput& output, const MovieOptions& options)
    : output_(output), options_(options), packet_(av_packet_alloc()) {
    AVFormatContext* context = nullptr;
    const int result =
        avformat_alloc_output_context2(&context, nullptr, FormOf(options.container).format, nullptr);
    context_.reset(context);
    if (packet_ == nullptr || result < 0) {
        AVPacket* packet = packet_;
        av_packet_free(&packet);
        throw std::runtime_error(std::string("This build of FFmpeg writes no ") + NameOf(options.container) +
                                 " files");
    }
    OpenOutput();
    const std::string start = TimeText(options.start, calvane_recording::Zone::Utc);
    av_dict_set(&context_->metadata, "creation_time", start.c_str(), 0);
    if (options.container == Container::MpegTs) { // It has no other text.
        av_dict_set(&context_->metadata, "service_provider", "calvane", 0);
        av_dict_set(&context_->metadata, "service_name", start.c_str(), 0);
    } else {
        av_dict_set(&context_->metadata, "date", start.c_str(), 0);
    }
}

MovieWriter::~MovieWriter() {
    AVPacket* packet = packet_;
    av_packet_free(&packet);
}

void MovieWriter::OpenOutput() {
    auto* const buffer = static_cast<unsigned char*>(av_malloc(kBufferBytes));
    context_->pb = buffer == nullptr ? nullptr
                                     : avio_alloc_context(buffer, kBufferBytes, 1, this, nullptr, &WriteBytes,
                                                          output_.CanSeek() ? &Seek : nullptr);
    if (context_->pb == nullptr) {
        av_free(buffer);
        throw std::bad_alloc();
    }
    if (output_.CanSeek()) { // Nobody waits for single packets of a file.
        context_->pb->seekable = AVIO_SEEKABLE_NORMAL;
        context_->pb->min_packet_size = kBufferBytes;
    }
    context_->flags |= AVFMT_FLAG_CUSTOM_IO;
}

int MovieWriter::WriteBytes(void* self, std::uint8_t* bytes, int length) {
    auto& writer = *static_cast<MovieWriter*>(self);
    if (writer.outputError_ == nullptr) {
        try {
            writer.output_.Write(bytes, static_cast<std::size_t>(length));
            writer.position_ += length;
            return length;
        } catch (...) {
            writer.outputError_ = std::current_exception(); // Not through the library's frames.
        }
    }
    return AVERROR_EXTERNAL;
}

std::int64_t MovieWriter::Seek(void* self, std::int64_t offset, int whence) {
    auto& writer = *static_cast<MovieWriter*>(self);
    const auto size = static_cast<std::int64_t>(writer.output_.Size());
    switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE:
            return size;
        case SEEK_SET:
            break;
        case SEEK_CUR:
            offset += writer.position_;
            break;
        case SEEK_END:
            offset += size;
            break;
        default:
            return AVERROR(EINVAL);
    }
    writer.output_.Seek(static_cast<std::uint64_t>(offset));
    writer.position_ = offset;
    return offset;
}

bool MovieWriter::Supports(AVCodecID codec) const {
    if (options_.container == Container::MpegTs) {
        return std::find(kOfTransportStreams.begin(), kOfTransportStreams.end(), codec) !=
               kOfTransportStreams.end();
    }
    // Matroska also takes what has a tag in its table of those of AVI and WAV.
    unsigned int tag = 0;
    const AVCodecTag* const* const tags = context_->oformat->codec_tag;
    return avformat_query_codec(context_->oformat, codec, FF_COMPLIANCE_NORMAL) == 1 ||
           (tags != nullptr && av_codec_get_tag2(tags, codec, &tag) != 0);
}

MovieWriter::Stream& MovieWriter::AddAny(AVCodecID codec) {
    if (!Supports(codec)) {
        throw std::runtime_error(std::string("A file of the format ") + NameOf(options_.container) +
                                 " cannot hold " + avcodec_get_name(codec) +
                                 (options_.container == Container::Matroska ? "" : "; mkv can hold more") +
                                 "; --track exports other tracks alone");
    }
    AVStream* const stream = avformat_new_stream(context_.get(), nullptr);
    if (stream == nullptr) {
        throw std::bad_alloc();
    }
    stream->codecpar->codec_id = codec;
    streams_.push_back({stream, StreamClock({1, 1'000'000})});
    return streams_.back();
}

std::size_t MovieWriter::AddStream(const calvane_media::CodecInfo& codec) {
    AVStream& stream = *AddAny(codec.parameters->codec_id).stream;
    Check(avcodec_parameters_copy(stream.codecpar, codec.parameters.get()), "take the codec's parameters");
    const AVCodecTag* const* const tags = context_->oformat->codec_tag;
    unsigned int tag = 0;
    // The input's tag stays if it means the same here, or if this codec has none here.
    if (tags != nullptr && av_codec_get_id(tags, stream.codecpar->codec_tag) != stream.codecpar->codec_id &&
        av_codec_get_tag2(tags, stream.codecpar->codec_id, &tag) != 0) {
        stream.codecpar->codec_tag = 0;
    }
    stream.time_base = codec.timeBase;
    stream.avg_frame_rate = codec.frameRate;
    stream.sample_aspect_ratio = codec.parameters->sample_aspect_ratio;
    streams_.pop_back();
    streams_.push_back({&stream, StreamClock(codec.timeBase)});
    return streams_.size() - 1;
}

std::size_t MovieWriter::AddTextStream() {
    const bool isMp4 = options_.container == Container::Mp4;
    AVStream& stream = *AddAny(isMp4 ? AV_CODEC_ID_MOV_TEXT : AV_CODEC_ID_TEXT).stream;
    stream.codecpar->codec_type = AVMEDIA_TYPE_SUBTITLE;
    stream.time_base = {1, 1'000'000};
    stream.disposition = 0;
    return streams_.size() - 1;
}

void MovieWriter::Begin() {
    AVDictionary* options = nullptr;
    if (options_.container == Container::Mp4 && (options_.fragmented || !output_.CanSeek())) {
        // The index of the whole is written behind the first fragment, since only then the times are known.
        // What feeds a browser's decoder disregards edit lists: a track that begins later has to say so in its fragments.
        const bool isFed = options_.fragmentTime != 0;
        av_dict_set(&options, "movflags",
                    isFed ? "frag_keyframe+delay_moov+default_base_moof+frag_discont"
                          : "frag_keyframe+delay_moov+default_base_moof",
                    0);
        const bool hasVideo = std::any_of(streams_.begin(), streams_.end(), [](const Stream& each) {
            return each.stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
        });
        if (options_.fragmentTime != 0 || !hasVideo) {
            av_dict_set_int(&options, "frag_duration",
                            options_.fragmentTime != 0 ? options_.fragmentTime : kFragmentTime, 0);
        }
    }
    const int result = avformat_write_header(context_.get(), &options);
    av_dict_free(&options);
    Check(result, "begin");
    hasBegun_ = true;
}

void MovieWriter::Write(const Packet& packet) {
    Stream& stream = streams_.at(packet.stream);
    const StreamClock& clock = stream.clock;
    av_packet_unref(packet_);
    packet_->stream_index = stream.stream->index;
    packet_->data = const_cast<std::uint8_t*>(packet.data); // The library only reads it.
    packet_->size = static_cast<int>(packet.size);
    packet_->flags = packet.isKeyFrame ? AV_PKT_FLAG_KEY : 0;
    packet_->dts = stream.clock.DecodeTicks(packet.decodeTime, missing_);
    packet_->pts = packet_->dts + std::max<std::int64_t>(0, clock.Ticks(packet.compositionOffset));
    packet_->duration = clock.Ticks(packet.duration);
    av_packet_rescale_ts(packet_, clock.TimeBase(), stream.stream->time_base);
    const int result = av_write_frame(context_.get(), packet_);
    packet_->data = nullptr;
    packet_->size = 0;
    Check(result, "write");
}

void MovieWriter::WriteText(const Packet& packet) {
    Packet text = packet;
    if (options_.container == Container::Mp4) { // ISO/IEC 14496-30: the length stands in front.
        text_.assign({static_cast<std::uint8_t>(packet.size >> 8), static_cast<std::uint8_t>(packet.size)});
        text_.insert(text_.end(), packet.data, packet.data + packet.size);
        text.size = text_.size();
        text_.resize(text_.size() + AV_INPUT_BUFFER_PADDING_SIZE);
        text.data = text_.data();
    }
    Write(text);
}

void MovieWriter::Join(std::int64_t missing) {
    missing_ += missing;
}

void MovieWriter::End() {
    Check(hasBegun_ ? av_write_trailer(context_.get()) : 0, "end");
    avio_flush(context_->pb);
    Check(context_->pb->error, "end");
}

void MovieWriter::Check(int result, const std::string& what) {
    if (outputError_ != nullptr) {
        std::rethrow_exception(outputError_);
    }
    if (result < 0) {
        throw std::runtime_error("Cannot " + what + " the " + NameOf(options_.container) +
                                 " file: " + ErrorText(result));
    }
}

} // namespace calvane_export
