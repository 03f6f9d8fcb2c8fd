#include "calvane/plugins/StatsCollectorPlugin.h"

#include <cstdint>

#include "calvane/config/IPluginConfiguration.h"
#include "calvane/config/PluginManager.h"
#include "quarn/core/Logger.h"
#include "quarn/core/StringUtil.h"

namespace quarn::calvane {

namespace {

const char* const kStampLower = "StatTimeLower";
const char* const kStampUpper = "StatTimeUpper";
const std::string kFilterPrefix = "filter.";
constexpr double kMicrosecondsPerSecond = osa::TimeStruct::kMicrosecondsPerSecond;

uint64_t ToMicroseconds(const osa::TimeStruct& time) {
    return uint64_t{time.seconds} * osa::TimeStruct::kMicrosecondsPerSecond + time.microseconds;
}

// 0 when the buffer carries no stamp.
uint64_t ReadStamp(const BufferMetadata& metadata) {
    const auto lower = static_cast<uint32_t>(metadata.GetInt(kStampLower));
    const auto upper = static_cast<uint32_t>(metadata.GetInt(kStampUpper));
    return uint64_t{upper} << 32U | lower;
}

void WriteStamp(BufferMetadata& metadata, uint64_t microseconds) {
    metadata.SetValue(kStampLower, static_cast<int>(static_cast<uint32_t>(microseconds)));
    metadata.SetValue(kStampUpper, static_cast<int>(static_cast<uint32_t>(microseconds >> 32U)));
}

PipelinePlugin* CreateStatsCollectorPlugin(CalvaneEnv*, const IPluginConfiguration& config) {
    return new StatsCollectorPlugin(config);
}

const PluginManager::PluginAutoRegister kRegistration("StatsCollectorPlugin", &CreateStatsCollectorPlugin, R"(
[plugin]
summary = Measures number, rate, sizes and delays of the buffers that pass, and logs them
inputs = default
outputs = -

[setting dump.modulo]
kind = integer
unit = buffers
default = 0
range = -2147483648 to 2147483647
summary = how many buffers lie between two entries in the log; 0: only one, in the end

[setting filter.*]
kind = integer
summary = also count the buffers whose integer metadata of the name behind the dot has this value by themselves
)");

} // namespace

StatsCollectorPlugin::StatsCollectorPlugin(const IPluginConfiguration& config)
    : BasicFilterPlugin(config), dumpModulo_(config.GetIntOrDefault("dump.modulo", 0)) {
    std::vector<std::string> keys;
    config.GetKeys(keys);
    for (const std::string& key : keys) {
        if (core::StringUtil::StartsWith(key, kFilterPrefix)) {
            filters_.emplace_back(key.substr(kFilterPrefix.size()), config.GetIntOrDefault(key.c_str(), 0));
        }
    }
}

StatsCollectorPlugin::~StatsCollectorPlugin() {
    DumpStats();
}

void StatsCollectorPlugin::OnBuffer(const Sink*, Buffer* buffer) {
    now_ = osa::TimeMonotonic();
    if (startTime_.IsZero()) {
        startTime_ = now_;
        periodStart_ = now_;
        source->PushBuffer(buffer);
        return;
    }
    std::unique_ptr<Buffer> owned(buffer);
    Measure(*owned);
    source->PushBuffer(owned.release());
    if (dumpModulo_ != 0 && incrementalSize_.GetCount() == static_cast<unsigned int>(dumpModulo_)) {
        DumpStats();
        StartNextPeriod();
    }
}

void StatsCollectorPlugin::DumpStats() const {
    DumpBufferStats("Cumulative", cumulativeSize_, startTime_);
    DumpBufferStats("Incremental", incrementalSize_, periodStart_);
    DumpDeltaTimeStats("Cumulative", cumulativeDelta_);
    DumpDeltaTimeStats("Incremental", incrementalDelta_);
    for (const StatsFilter& filter : filters_) {
        DumpBufferStats(filter.key + " Cumulative", filter.cumulative, startTime_);
        DumpBufferStats(filter.key + " Incremental", filter.incremental, periodStart_);
    }
}

void StatsCollectorPlugin::DumpBufferStats(const std::string& label, const SizeStats& stats,
                                           const osa::TimeStruct& since) const {
    const double elapsed = static_cast<double>(ToMicroseconds(now_ - since)) / kMicrosecondsPerSecond;
    const char* const name = label.c_str();
    logger->Information("%s Time:    %f seconds", name, elapsed);
    logger->Information("%s Total buffers: %u", name, stats.GetCount());
    logger->Information("%s Buffer rate:   %f per second", name, stats.GetCount() / elapsed);
    if (stats.GetCount() != 0) {
        logger->Information("%s average buffer size : %f bytes", name, stats.GetAverage());
        logger->Information("%s Min buffer size : %d bytes", name, static_cast<int>(stats.GetMin()));
        logger->Information("%s Max buffer size : %d bytes\n", name, static_cast<int>(stats.GetMax()));
    }
}

void StatsCollectorPlugin::DumpDeltaTimeStats(const std::string& label, const DelayStats& stats) const {
    if (stats.GetCount() == 0) {
        return;
    }
    const char* const name = label.c_str();
    logger->Information("%s Average Delta Time :  %f seconds", name,
                        stats.GetAverage() / kMicrosecondsPerSecond);
    logger->Information("%s minimum Delta time : %f seconds", name,
                        static_cast<double>(stats.GetMin()) / kMicrosecondsPerSecond);
    logger->Information("%s maximum Delta time : %f seconds\n", name,
                        static_cast<double>(stats.GetMax()) / kMicrosecondsPerSecond);
}

void StatsCollectorPlugin::Measure(Buffer& buffer) {
    const uint64_t stamp = ReadStamp(buffer.GetMetadata());
    const uint64_t microseconds = ToMicroseconds(now_);
    if (stamp != 0 && stamp < microseconds) {
        cumulativeDelta_.Add(microseconds - stamp);
        incrementalDelta_.Add(microseconds - stamp);
    }
    cumulativeSize_.Add(buffer.GetLength());
    incrementalSize_.Add(buffer.GetLength());
    for (StatsFilter& filter : filters_) {
        if (buffer.GetMetadata().GetInt(filter.key) == filter.value) {
            filter.cumulative.Add(buffer.GetLength());
            filter.incremental.Add(buffer.GetLength());
        }
    }
    WriteStamp(buffer.GetMetadata(), microseconds);
}

void StatsCollectorPlugin::StartNextPeriod() {
    periodStart_ = now_;
    incrementalDelta_.Reset();
    incrementalSize_.Reset();
    for (StatsFilter& filter : filters_) {
        filter.incremental.Reset();
    }
}

} // namespace quarn::calvane
