#pragma once

#include <cstdint>
#include <string>

#include "calvane/buffer/BufferFormat.h"
#include "calvane/graph/BasicSourcePlugin.h"

namespace quarn::calvane {
class CalvaneEnv;
}
namespace quarn::core {
class IMemoryAllocator;
}

namespace testrecords {

/// Produces records that can be verified when they are read back: 8 bytes of a number that counts from 0 and 4 bytes of the
/// record's length, both little-endian, then bytes that count up from the number. Each has the present UTC as
/// timestamp. Every thirtieth has the metadata "KeyFrame" 1.
///
/// Settings: "track" (video): video, audio or metadata, whose format is announced with typical properties;
///           "bytes.min" and "bytes.max" (1000, bytes.min): the length, which varies between the two; "rate.millihz"
///           (25000): records in 1000 seconds, 0 for as many as possible; "count" (0): so many and no more; "same" (1): so
///           many have the same time, that of the first of them.
class TestRecordSource : public quarn::calvane::BasicSourcePlugin {
public:
    TestRecordSource(quarn::calvane::CalvaneEnv* env, const quarn::calvane::IPluginConfiguration& config);

    bool OnGenerateBuffer(quarn::osa::TimeStruct& next) override;

private:
    unsigned int ReadSetting(const quarn::calvane::IPluginConfiguration& config, const char* key,
                             int defaultValue, int least) const;
    quarn::calvane::BufferFormat MakeFormat(const std::string& track) const;

    const unsigned int leastBytes_;
    const unsigned int mostBytes_;
    const unsigned int rateMilliHz_;
    const unsigned int count_;
    const unsigned int same_;
    quarn::core::IMemoryAllocator* const allocator_; // The environment's.
    std::uint64_t number_ = 0;                       // Of the next record.
    quarn::osa::TimeStruct time_;
};

} // namespace testrecords
