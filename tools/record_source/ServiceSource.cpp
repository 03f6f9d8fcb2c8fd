#include "record_source/ServiceSource.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "RecordReader.h"
#include "RecordingClient.h"
#include "calvane/recording/RecordingManager.h"

namespace calvane_recording {
namespace {

class ServiceRecords : public IRecords {
public:
    ServiceRecords(int descriptor, const std::function<bool()>& isInterrupted)
        : reader_(descriptor, isInterrupted) {}

    bool Read(Record& record) override {
        while (!isAtEnd_) {
            const Frame frame = reader_.ReadHead();
            unsigned char* const payload = record.SetSize(frame.length);
            reader_.ReadPayload(payload, frame.length);
            if (frame.kind == Frame::kRecord) {
                Take(frame, record);
                return true;
            }
            Note(frame, record);
        }
        return false;
    }
    Losses GetLosses() const override { return losses_; }

private:
    void Take(const Frame& frame, Record& record) {
        record.time = frame.time;
        record.compositionOffset = frame.compositionOffset;
        record.isKeyFrame = (frame.flags & 1) != 0;
        record.isAfterGap = (frame.flags & 2) != 0 || std::exchange(erasedAhead_, false);
        record.info = info_;
    }
    void Note(const Frame& frame, const Record& record) {
        const std::string text(record.bytes.begin(),
                               record.bytes.begin() + static_cast<std::ptrdiff_t>(record.size));
        switch (frame.kind) {
            case Frame::kInfo: {
                auto info = std::make_shared<InfoMap>();
                quarn::calvane::RecordingManager::deserializeTrackInfo(text, *info);
                info_ = std::move(info);
                return;
            }
            case Frame::kErased:
                ++losses_.erased;
                erasedAhead_ = true;
                return;
            case Frame::kFailed:
                throw std::runtime_error("The recorder could not read on: " + text);
            default:
                isAtEnd_ = true;
                losses_.unreadable = UnreadableOf(record.bytes.data(), record.size);
        }
    }

    RecordReader reader_;
    std::shared_ptr<const InfoMap> info_ = std::make_shared<InfoMap>();
    Losses losses_;
    bool erasedAhead_ = false;
    bool isAtEnd_ = false;
};

} // namespace

ServiceSource::ServiceSource(RecordingClient& client, std::function<bool()> isInterrupted)
    : client_(client), isInterrupted_(std::move(isInterrupted)) {}

Span ServiceSource::GetSpan(TrackKind track) {
    return client_.GetTrackSummary(static_cast<unsigned int>(track));
}

std::unique_ptr<IRecords> ServiceSource::Open(TrackKind track, const Span& span) {
    return std::make_unique<ServiceRecords>(client_.OpenRecords(static_cast<unsigned int>(track), span),
                                            isInterrupted_);
}

std::optional<IRecordSource::KeyFrame> ServiceSource::FindKeyFrame(TrackKind track, Time at) {
    return FindKeyFrameByReading(*this, track, at); // The services have no question for it.
}

} // namespace calvane_recording
