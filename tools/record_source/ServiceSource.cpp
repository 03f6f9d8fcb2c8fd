#include "record_source/ServiceSource.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "RecordReader.h"
#include "RecordingClient.h"
#include "calvane/recording/RecordingManager.h"

namespace calvane_recording {
namespace {

/// How far the first look for a key frame goes back; each further one goes four times as far.
constexpr Time kFirstLook = 2 * kSecond;

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

/// The services have no question for it: reads what lies before, further and further back.
std::optional<IRecordSource::KeyFrame> ServiceSource::FindKeyFrame(TrackKind track, Time at) {
    const Span all = GetSpan(track);
    Time end = std::min(at, all.last);
    const Time earliest = std::max(all.first, end - kFarthestKeyFrame);
    std::optional<KeyFrame> found;
    std::optional<Time> goesOnUntil; // From the last record on.
    Record record;
    for (Time look = kFirstLook; !found && !all.IsEmpty() && end >= earliest; look *= 4) {
        const Time begin = std::max(earliest, end - look);
        const auto records = Open(track, {begin, end});
        Time last = 0;
        Time interval = 0;
        while (records->Read(record)) {
            if (record.isKeyFrame) {
                found = {record.time, record.PresentationTime(), 0};
            }
            interval = last != 0 ? record.time - last : 0;
            last = record.time;
        }
        if (last != 0 && !goesOnUntil) {
            goesOnUntil = GapAfter(last, interval);
        }
        end = begin - 1;
    }
    if (found) {
        found->goesOnUntil = *goesOnUntil;
    }
    return found;
}

} // namespace calvane_recording
