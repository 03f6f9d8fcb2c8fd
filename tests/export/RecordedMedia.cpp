#include "export/RecordedMedia.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "calvane/recording/RecordingManager.h"
#include "media/CodecInfo.h"

using quarn::calvane::RecordHeader;
using quarn::calvane::RecordingManager;
using quarn::calvane::RecordingTrack;
using quarn::calvane::track_type;

namespace {

boost::posix_time::ptime ToPtime(std::int64_t time) {
    return boost::posix_time::ptime(boost::gregorian::date(1970, 1, 1)) +
           boost::posix_time::microseconds(time);
}

track_type TrackOf(AVMediaType type) {
    return type == AVMEDIA_TYPE_VIDEO   ? quarn::calvane::VIDEO_TRACK
           : type == AVMEDIA_TYPE_AUDIO ? quarn::calvane::AUDIO_TRACK
                                        : quarn::calvane::METADATA_TRACK;
}

} // namespace

unsigned int RecordMedia(RecordingManager& recorder, const std::string& path, const RecordingPlan& plan) {
    AVFormatContext* input = nullptr;
    EXPECT_EQ(avformat_open_input(&input, path.c_str(), nullptr, nullptr), 0) << path;
    EXPECT_GE(avformat_find_stream_info(input, nullptr), 0);
    for (unsigned int i = 0; i != input->nb_streams; ++i) {
        const AVStream& stream = *input->streams[i];
        recorder.getTrack(TrackOf(stream.codecpar->codec_type))
            .setInfo(calvane_media::InfoFromCodec(*stream.codecpar, stream.time_base, stream.avg_frame_rate));
    }
    AVPacket* const packet = av_packet_alloc();
    unsigned int count = 0;
    std::map<int, bool> isAfterGap;
    for (; av_read_frame(input, packet) == 0; av_packet_unref(packet)) {
        const AVStream& stream = *input->streams[packet->stream_index];
        const std::int64_t time = av_rescale_q(packet->dts, stream.time_base, AVRational{1, 1'000'000});
        if (plan.isLost(time)) {
            isAfterGap[packet->stream_index] = true;
            continue;
        }
        const unsigned int flags = ((packet->flags & AV_PKT_FLAG_KEY) != 0 ? RecordHeader::kKeyFrame : 0U) |
                                   (isAfterGap[packet->stream_index] ? RecordHeader::kDiscontinuity : 0U);
        isAfterGap[packet->stream_index] = false;
        const std::int64_t offset =
            av_rescale_q(packet->pts - packet->dts, stream.time_base, AVRational{1, 1'000'000});
        EXPECT_TRUE(recorder.getTrack(TrackOf(stream.codecpar->codec_type))
                        .writeRecord(ToPtime(plan.start + time), flags, packet->data,
                                     static_cast<std::size_t>(packet->size), offset));
        ++count;
    }
    AVPacket* done = packet;
    av_packet_free(&done);
    avformat_close_input(&input);
    return count;
}
