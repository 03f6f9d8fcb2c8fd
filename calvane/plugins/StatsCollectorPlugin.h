#pragma once

#include <list>
#include <string>

#include "calvane/Export.h"
#include "calvane/graph/BasicFilterPlugin.h"
#include "quarn/core/Stats.h"
#include "quarn/osa/TimeStruct.h"

namespace quarn::calvane {

/// Measures what passes one point of a pipeline: number, rate and sizes of buffers, and how long each took
/// since the collector before this one. Everything is logged at Information level, as totals ("Cumulative")
/// and since the last time ("Incremental"), every so many buffers and in the end.
///
/// Every buffer but the first, which only starts the clock, is stamped with the monotonic time in
/// microseconds: the metadata "StatTimeLower" and "StatTimeUpper" hold its low and high 32 bits.
///
/// Settings: "dump.modulo" (0: only in the end) buffers between two dumps; "filter." and the name of an
///           integer metadata item: buffers in which it has this value (0 where there is no such item) are
///           also counted by themselves.
///
/// Threads:  the one that pushes into its sink.
class CALVANE_API StatsCollectorPlugin : public BasicFilterPlugin {
public:
    /// Of lengths in bytes.
    using SizeStats = stl::Stats<unsigned int, unsigned long long>;
    /// Of microseconds.
    using DelayStats = stl::Stats<unsigned long long, unsigned long long>;

    explicit StatsCollectorPlugin(const IPluginConfiguration& config);
    ~StatsCollectorPlugin() override;

    void OnBuffer(const Sink* sink, Buffer* buffer) override;

    void DumpStats() const;
    void DumpBufferStats(const std::string& label, const SizeStats& stats,
                         const osa::TimeStruct& since) const;
    void DumpDeltaTimeStats(const std::string& label, const DelayStats& stats) const;

private:
    /// The buffers in which one metadata item has one value.
    class StatsFilter {
    public:
        StatsFilter(std::string itemName, int itemValue) : key(std::move(itemName)), value(itemValue) {}
        virtual ~StatsFilter() = default;

        const std::string key;
        const int value;
        SizeStats cumulative;
        SizeStats incremental;
    };

    void Measure(Buffer& buffer);
    void StartNextPeriod();

    osa::TimeStruct now_;         // Of the latest buffer.
    osa::TimeStruct startTime_;   // Of the first buffer; zero before.
    osa::TimeStruct periodStart_; // Of the first buffer or of the last dump.
    DelayStats cumulativeDelta_;
    DelayStats incrementalDelta_;
    SizeStats cumulativeSize_;
    SizeStats incrementalSize_;
    const int dumpModulo_;
    std::list<StatsFilter> filters_;
};

} // namespace quarn::calvane
