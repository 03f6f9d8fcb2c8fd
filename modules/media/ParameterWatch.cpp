#include "ParameterWatch.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <new>
#include <utility>

#include "Codec.h"
#include "Library.h"

namespace calvane_media {

namespace {

struct CloseParser {
    void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
};

void SetExtraData(AVCodecParameters& parameters, const std::uint8_t* data, std::size_t size) {
    auto* const copy = static_cast<std::uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    std::copy_n(data, size, copy);
    av_freep(&parameters.extradata);
    parameters.extradata = copy;
    parameters.extradata_size = static_cast<int>(size);
}

struct PictureSize {
    int width = 0;
    int height = 0;
};

/// Of a JPEG picture: what its frame header says (ITU-T T.81, B.2.2). 0 where there is none.
PictureSize JpegSize(const std::uint8_t* data, std::size_t size) {
    std::size_t at = 2; // Behind SOI.
    while (at + 9 <= size && data[at] == 0xFF) {
        const std::uint8_t marker = data[at + 1];
        const std::size_t length = std::size_t{data[at + 2]} << 8U | data[at + 3];
        const bool isFrame = marker >= 0xC0 && marker <= 0xC3;
        if (isFrame) {
            return {data[at + 7] << 8 | data[at + 8], data[at + 5] << 8 | data[at + 6]};
        }
        at += marker == 0xFF ? 1 : 2 + length;
    }
    return {};
}

} // namespace

void ParameterWatch::FreeFilter::operator()(AVBSFContext* filter) const {
    av_bsf_free(&filter);
}

ParameterWatch::ParameterWatch(CodecParametersPtr parameters) : parameters_(std::move(parameters)) {
    if (IsByteStream()) {
        MakeExtractor();
    }
}

ParameterWatch::~ParameterWatch() = default;

bool ParameterWatch::Examine(const AVPacket& packet) {
    if (av_packet_get_side_data(&packet, AV_PKT_DATA_NEW_EXTRADATA, nullptr) != nullptr) {
        return Take(packet, packet);
    }
    if (parameters_->codec_id == AV_CODEC_ID_MJPEG) {
        return TakeJpeg(packet);
    }
    if (!extractor_ || (packet.flags & AV_PKT_FLAG_KEY) == 0) {
        return false;
    }
    const PacketPtr reference(av_packet_clone(&packet));
    if (!reference) {
        throw std::bad_alloc();
    }
    if (av_bsf_send_packet(extractor_.get(), reference.get()) < 0 ||
        av_bsf_receive_packet(extractor_.get(), reference.get()) < 0) {
        av_bsf_flush(extractor_.get());
        return false;
    }
    return Take(*reference, packet);
}

bool ParameterWatch::IsByteStream() const {
    const bool isH26x =
        parameters_->codec_id == AV_CODEC_ID_H264 || parameters_->codec_id == AV_CODEC_ID_HEVC;
    return isH26x && (parameters_->extradata_size == 0 || parameters_->extradata[0] == 0);
}

void ParameterWatch::MakeExtractor() {
    AVBSFContext* filter = nullptr;
    const AVBitStreamFilter* const type = av_bsf_get_by_name("extract_extradata");
    if (type == nullptr || av_bsf_alloc(type, &filter) < 0) {
        return;
    }
    extractor_.reset(filter);
    if (avcodec_parameters_copy(filter->par_in, parameters_.get()) < 0 || av_bsf_init(filter) < 0) {
        extractor_.reset();
    }
}

bool ParameterWatch::Take(const AVPacket& withExtraData, const AVPacket& packet) {
    std::size_t size = 0;
    const std::uint8_t* const data =
        av_packet_get_side_data(&withExtraData, AV_PKT_DATA_NEW_EXTRADATA, &size);
    const auto known = static_cast<std::size_t>(parameters_->extradata_size);
    if (data == nullptr || size == 0 ||
        (size == known && std::equal(data, data + size, parameters_->extradata))) {
        return false;
    }
    SetExtraData(*parameters_, data, size);
    TakePicture(packet);
    return true;
}

bool ParameterWatch::TakeJpeg(const AVPacket& packet) {
    const PictureSize size = JpegSize(packet.data, static_cast<std::size_t>(packet.size));
    if (size.width == 0 || size.height == 0 ||
        (size.width == parameters_->width && size.height == parameters_->height)) {
        return false;
    }
    parameters_->width = size.width;
    parameters_->height = size.height;
    return true;
}

/// Size, profile and the like may have changed as well; the codec's parser finds them.
void ParameterWatch::TakePicture(const AVPacket& packet) {
    const CodecContextPtr context = MakeContext(nullptr);
    const std::unique_ptr<AVCodecParserContext, CloseParser> parser(av_parser_init(parameters_->codec_id));
    if (!parser || avcodec_parameters_to_context(context.get(), parameters_.get()) < 0) {
        return;
    }
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    std::uint8_t* data = nullptr;
    int size = 0;
    av_parser_parse2(parser.get(), context.get(), &data, &size, packet.data, packet.size, AV_NOPTS_VALUE,
                     AV_NOPTS_VALUE, -1);
    if (parser->width > 0 && parser->height > 0) {
        parameters_->width = parser->width;
        parameters_->height = parser->height;
    }
    if (context->profile >= 0) {
        parameters_->profile = context->profile;
        parameters_->level = context->level;
    }
}

} // namespace calvane_media
