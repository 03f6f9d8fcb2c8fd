#include "TestRecordSource.h"

#include <chrono>
#include <memory>
#include <numeric>

#include "calvane/buffer/Buffer.h"
#include "calvane/config/IPluginConfiguration.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/IMemoryAllocator.h"

namespace testrecords {

using namespace quarn::calvane;
using quarn::core::AllocatorProps;
using quarn::osa::TimeStruct;

namespace {

constexpr int kHeaderBytes = 12;

unsigned char* PutLittleEndian(unsigned char* place, std::uint64_t value, int bytes) {
    for (int i = 0; i != bytes; ++i) {
        *place++ = static_cast<unsigned char>(value >> (8 * i));
    }
    return place;
}

TimeStruct NowInUtc() {
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    return {static_cast<unsigned int>(now / 1'000'000), static_cast<unsigned int>(now % 1'000'000)};
}

} // namespace

TestRecordSource::TestRecordSource(CalvaneEnv* env, const IPluginConfiguration& config)
    : BasicSourcePlugin(config),
      leastBytes_(ReadSetting(config, "bytes.min", 1000, kHeaderBytes)),
      mostBytes_(
          ReadSetting(config, "bytes.max", static_cast<int>(leastBytes_), static_cast<int>(leastBytes_))),
      rateMilliHz_(ReadSetting(config, "rate.millihz", 25000, 0)),
      count_(ReadSetting(config, "count", 0, 0)),
      same_(ReadSetting(config, "same", 1, 1)),
      allocator_(env->GetDefaultAllocator(AllocatorProps::kAddressable)) {
    source->SetFormat(MakeFormat(config.GetStringOrDefault("track", "video")));
}

unsigned int TestRecordSource::ReadSetting(const IPluginConfiguration& config, const char* key,
                                           int defaultValue, int least) const {
    const int value = config.GetIntOrDefault(key, defaultValue);
    if (value < least) {
        ErrorInSetting(key, std::string(key) + " must be at least " + std::to_string(least) + ", not " +
                                std::to_string(value));
    }
    return static_cast<unsigned int>(value);
}

BufferFormat TestRecordSource::MakeFormat(const std::string& track) const {
    BufferFormat format;
    if (track == "video") {
        format.SetFormat(1);
        format.Set("width", 1920);
        format.Set("height", 1080);
        format.Set("bitrate", 4'000'000);
        format.Set("frame.rate.millihz", static_cast<int>(rateMilliHz_));
    } else if (track == "audio") {
        format.SetFormat(2);
        format.Set("bits.per.sample", 16);
        format.Set("channels", 1);
        format.Set("sample.freq", 8000);
    } else if (track == "metadata") {
        format.SetFormat(3);
    } else {
        ErrorInSetting("track", "track must be video, audio or metadata, not \"" + track + "\"");
    }
    return format;
}

bool TestRecordSource::OnGenerateBuffer(TimeStruct& next) {
    if (count_ != 0 && number_ == count_) {
        return false;
    }
    if (rateMilliHz_ != 0) {
        next = TimeStruct(0, 1'000'000'000U / rateMilliHz_);
    }
    const auto spread = mostBytes_ - leastBytes_ + 1;
    const auto bytes =
        leastBytes_ + static_cast<unsigned int>(number_ * 7919 % spread); // A prime: all lengths.
    auto record = std::make_unique<Buffer>(allocator_->Allocate(bytes), source->GetFormat());
    unsigned char* const begin = record->GetDataForWrite();
    unsigned char* const body = PutLittleEndian(PutLittleEndian(begin, number_, 8), bytes, 4);
    std::iota(body, begin + bytes, static_cast<unsigned char>(number_));
    if (number_ % 30 == 0) {
        record->GetMetadata().SetValue("KeyFrame", 1);
    }
    if (number_ % same_ == 0) {
        time_ = NowInUtc();
    }
    record->SetTimestamp(time_);
    ++number_;
    source->PushBuffer(record.release());
    return true;
}

} // namespace testrecords
