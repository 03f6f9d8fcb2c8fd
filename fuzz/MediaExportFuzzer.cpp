// Records as a card may have them that somebody else has written to, exported into each container: any infos, times, flags
// and bytes. It neither crashes nor hangs, what it refuses is an error with words, and no byte of the file is without a
// record that it could come from. An input is a list of records: track, flags, time since the last one, composition offset,
// which info, length, payload.

extern "C" {
#include <libavutil/base64.h>
#include <libavutil/log.h>
}

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Require.h"
#include "media_export/Export.h"

namespace {

using namespace calvane_export;
using namespace calvane_recording;

constexpr Time kStart = 1'767'261'600'000'000;
constexpr std::size_t kMostRecords = 200;

/// Takes an input apart; zeros behind its end.
class Bytes {
public:
    Bytes(const uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
    bool IsAtEnd() const { return at_ == end_; }
    unsigned int U8() { return at_ == end_ ? 0 : *at_++; }
    unsigned int U16() { return U8() | U8() << 8U; }
    std::string Take(std::size_t length) {
        const auto* const begin = at_;
        at_ += std::min(length, static_cast<std::size_t>(end_ - at_));
        return {begin, at_};
    }

private:
    const uint8_t* at_;
    const uint8_t* const end_;
};

InfoMap TakeInfo(Bytes& bytes) {
    constexpr std::array<const char*, 12> kCodecs{"h264", "hevc",      "mjpeg",     "mpeg4",
                                                  "aac",  "pcm_s16le", "pcm_mulaw", "opus",
                                                  "vp9",  "mov_text",  "none",      ""};
    constexpr std::array<const char*, 6> kTimeBases{"1/90000", "1/1000", "1/48000", "1/1", "7/0", "x"};
    InfoMap info{{"Codec", kCodecs.at(bytes.U8() % kCodecs.size())},
                 {"TimeBase", kTimeBases.at(bytes.U8() % kTimeBases.size())}};
    for (const char* const key :
         {"Width", "Height", "SampleFreq", "NumChannels", "FrameSize", "BlockAlign"}) {
        if (const unsigned int value = bytes.U16(); value != 0) {
            info[key] = std::to_string(value);
        }
    }
    if (const std::string extra = bytes.Take(bytes.U8()); !extra.empty()) {
        std::string text(AV_BASE64_SIZE(extra.size()), '\0');
        av_base64_encode(text.data(), static_cast<int>(text.size()),
                         reinterpret_cast<const uint8_t*>(extra.data()), static_cast<int>(extra.size()));
        info["ExtraData"] = text.c_str();
    }
    return info;
}

using Track = std::vector<Record>;

class Records : public IRecords {
public:
    Records(const Track& track, const Span& span) : track_(track), span_(span) {}
    bool Read(Record& record) override {
        while (next_ != track_.size() && track_[next_].time < span_.first) {
            ++next_;
        }
        if (next_ == track_.size() || track_[next_].time > span_.last) {
            return false;
        }
        record = track_[next_++];
        return true;
    }
    Losses GetLosses() const override { return {}; }

private:
    const Track& track_;
    const Span span_;
    std::size_t next_ = 0;
};

class Source : public IRecordSource {
public:
    explicit Source(Bytes bytes) {
        std::vector<std::shared_ptr<const InfoMap>> infos;
        Time time = kStart;
        for (std::size_t count = 0; !bytes.IsAtEnd() && count != kMostRecords; ++count) {
            Track& track = tracks_.at(bytes.U8() % tracks_.size());
            Record& record = track.emplace_back();
            const unsigned int flags = bytes.U8();
            time += Time{bytes.U16()} << (flags >> 4U);
            record.time = time;
            record.isKeyFrame = (flags & 1U) != 0;
            record.isAfterGap = (flags & 2U) != 0;
            record.compositionOffset =
                static_cast<std::int16_t>(bytes.U16()) * (std::int64_t{1} << (flags >> 4U));
            if ((flags & 4U) != 0 || infos.empty()) {
                infos.push_back(std::make_shared<const InfoMap>(TakeInfo(bytes)));
            }
            record.info = infos[(flags & 8U) != 0 ? 0 : infos.size() - 1];
            const std::string payload = bytes.Take(bytes.U16());
            std::copy(payload.begin(), payload.end(), record.SetSize(payload.size()));
            last_ = time;
        }
    }

    Span GetSpan(TrackKind kind) override {
        const Track& track = Of(kind);
        return track.empty() ? Span{} : Span{track.front().time, track.back().time};
    }
    std::unique_ptr<IRecords> Open(TrackKind kind, const Span& span) override {
        return std::make_unique<Records>(Of(kind), span);
    }
    std::optional<KeyFrame> FindKeyFrame(TrackKind kind, Time at) override {
        std::optional<KeyFrame> found;
        for (const Record& record : Of(kind)) {
            if (record.time <= at && record.isKeyFrame) {
                found = {record.time, record.PresentationTime(), record.time + kShortestGap};
            }
        }
        return found;
    }
    Time Last() const { return last_; }
    std::size_t Count() const { return tracks_[0].size() + tracks_[1].size() + tracks_[2].size(); }

private:
    const Track& Of(TrackKind kind) const { return tracks_.at(static_cast<std::size_t>(kind)); }

    std::array<Track, 3> tracks_;
    Time last_ = kStart;
};

class Memory : public IOutput {
public:
    explicit Memory(bool canSeek) : canSeek_(canSeek) {}
    void Write(const std::uint8_t* bytes, std::size_t length) override {
        file_.resize(std::max(file_.size(), at_ + length));
        std::copy(bytes, bytes + length, file_.begin() + static_cast<std::ptrdiff_t>(at_));
        at_ += length;
    }
    bool CanSeek() const override { return canSeek_; }
    void Seek(std::uint64_t offset) override { at_ = static_cast<std::size_t>(offset); }
    std::uint64_t Size() const override { return file_.size(); }

private:
    const bool canSeek_;
    std::vector<std::uint8_t> file_;
    std::size_t at_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    av_log_set_level(AV_LOG_QUIET);
    Bytes bytes(data, size);
    const unsigned int choice = bytes.U8();
    Source source(bytes);
    ExportOptions options;
    options.span = {kStart + Time{choice >> 4U} * 100'000, source.Last()};
    options.container = std::array{Container::Mp4, Container::Matroska, Container::MpegTs}.at(choice % 3);
    options.fragmented = (choice & 4U) != 0;
    options.skipGaps = (choice & 8U) != 0;
    try {
        std::optional<Change> change;
        std::uint64_t written = 0;
        do {
            Memory file((choice & 2U) != 0);
            const Part part = ExportPart(source, file, options, change);
            REQUIRE(part.records[0] + part.records[1] + part.records[2] <= source.Count());
            REQUIRE(part.bytes == 0 || file.Size() > 0);
            REQUIRE(!change || !part.change || part.change->time > change->time);
            change = part.change;
            REQUIRE(++written <= source.Count());
        } while (change);
    } catch (const std::runtime_error& problem) {
        REQUIRE(*problem.what() != '\0');
    }
    return 0;
}
