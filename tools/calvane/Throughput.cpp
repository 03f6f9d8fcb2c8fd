#include "Throughput.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "quarn/osa/FormatText.h"

namespace calvane_program {

namespace {

using quarn::calvane::ConnectionCounts;
using quarn::calvane::QueueStatus;
using quarn::osa::FormatText;

PluginThroughput& Entry(std::vector<PluginThroughput>& plugins, const std::string& name) {
    const auto found = std::find_if(plugins.begin(), plugins.end(),
                                    [&name](const auto& entry) { return entry.plugin == name; });
    if (found != plugins.end()) {
        return *found;
    }
    plugins.push_back({name, {}, {}, {}});
    return plugins.back();
}

void Add(std::optional<Traffic>& sum, const Traffic& more) {
    sum = Traffic{sum.value_or(Traffic()).buffers + more.buffers, sum.value_or(Traffic()).bytes + more.bytes};
}

// With a prefix such that three or four digits stand before it: 950, 12.3k, 4.56M.
std::string Scaled(double value) {
    constexpr std::array<const char*, 5> kPrefixes{"", "k", "M", "G", "T"};
    size_t prefix = 0;
    for (; value >= 1000 && prefix + 1 < kPrefixes.size(); ++prefix) {
        value /= 1000;
    }
    const int decimals = value >= 99.95 || (prefix == 0 && value == static_cast<int>(value)) ? 0
                         : value >= 9.995                                                    ? 1
                                                                                             : 2;
    return FormatText("%.*f%s", decimals, value, kPrefixes[prefix]);
}

/// One way of one plugin, as text. Empty where the plugin has no such way.
struct TrafficText {
    std::string rate, byteRate, buffers, bytes;
};

TrafficText Describe(const std::optional<Traffic>& before, const std::optional<Traffic>& now,
                     double seconds) {
    if (!now) {
        return {};
    }
    const Traffic then = before.value_or(Traffic());
    return {Scaled(static_cast<double>(now->buffers - then.buffers) / seconds),
            Scaled(static_cast<double>(now->bytes - then.bytes) / seconds) + "B",
            std::to_string(now->buffers), Scaled(static_cast<double>(now->bytes)) + "B"};
}

PluginThroughput Earlier(const std::vector<PluginThroughput>& before, const std::string& plugin) {
    for (const PluginThroughput& entry : before) {
        if (entry.plugin == plugin) {
            return entry;
        }
    }
    return {};
}

std::uint64_t NewDrops(const PluginThroughput& before, const PluginThroughput& now) {
    return now.queue->dropped - (before.queue ? before.queue->dropped : 0);
}

using Row = std::array<std::string, 13>;

std::optional<Traffic> FindOutput(const PluginThroughput& plugin, const std::string& name) {
    const auto found = plugin.out.find(name);
    return found != plugin.out.end() ? std::optional(found->second) : std::nullopt;
}

/// The row of a plugin, or, with an output's name, that of the output.
Row MakeRow(const PluginThroughput& before, const PluginThroughput& now, const std::string& output,
            double seconds) {
    const TrafficText in = Describe(before.in, output.empty() ? now.in : std::nullopt, seconds);
    const TrafficText out = Describe(FindOutput(before, output), FindOutput(now, output), seconds);
    Row row{output.empty() ? now.plugin : "  " + output,
            in.rate,
            in.byteRate,
            out.rate,
            out.byteRate,
            in.buffers,
            in.bytes,
            out.buffers,
            out.bytes};
    if (now.queue && output.empty()) {
        row[9] = FormatText("%u/%u", now.queue->waiting, now.queue->capacity);
        row[10] = std::to_string(now.queue->highWaterMark);
        row[11] = std::to_string(NewDrops(before, now));
        row[12] = std::to_string(now.queue->dropped);
    }
    return row;
}

std::string Sentence(const std::string& way, const TrafficText& text) {
    return text.rate.empty() ? ""
                             : FormatText(" %s %s/s %s/s, in all %s and %s;", way.c_str(), text.rate.c_str(),
                                          text.byteRate.c_str(), text.buffers.c_str(), text.bytes.c_str());
}

} // namespace

std::vector<PluginThroughput> SumUp(const std::vector<ConnectionCounts>& connections,
                                    const std::vector<QueueStatus>& queues) {
    std::vector<PluginThroughput> plugins;
    for (const auto& [connection, buffers, bytes] : connections) {
        Entry(plugins, connection.upstream);
        Add(Entry(plugins, connection.downstream).in, {buffers, bytes});
        // The sinks of one output get the same buffers, one after the other.
        Traffic& output = Entry(plugins, connection.upstream).out[connection.output];
        output = {std::max(output.buffers, buffers), std::max(output.bytes, bytes)};
    }
    for (const QueueStatus& queue : queues) {
        Entry(plugins, queue.name).queue = queue.statistics;
    }
    return plugins;
}

std::vector<std::string> FormatTable(const std::vector<PluginThroughput>& before,
                                     const std::vector<PluginThroughput>& now, double seconds) {
    std::vector<Row> rows{
        {"plugin", "in/s", "", "out/s", "", "in", "", "out", "", "queue", "most", "drops", "in all"}};
    for (const PluginThroughput& plugin : now) {
        const PluginThroughput earlier = Earlier(before, plugin.plugin);
        rows.push_back(MakeRow(earlier, plugin, "", seconds));
        for (const auto& output : plugin.out) {
            if (!output.first.empty()) {
                rows.push_back(MakeRow(earlier, plugin, output.first, seconds));
            }
        }
    }
    std::array<size_t, std::tuple_size<Row>::value> widths{};
    for (const Row& row : rows) {
        for (size_t column = 0; column != row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    std::vector<std::string> lines;
    for (const Row& row : rows) {
        std::string line = row[0] + std::string(widths[0] - row[0].size(), ' ');
        for (size_t column = 1; column != row.size(); ++column) {
            line += std::string(widths[column] - row[column].size() + 2, ' ') + row[column];
        }
        lines.push_back(line.substr(0, line.find_last_not_of(' ') + 1));
    }
    return lines;
}

std::vector<std::string> FormatLines(const std::vector<PluginThroughput>& before,
                                     const std::vector<PluginThroughput>& now, double seconds) {
    std::vector<std::string> lines;
    for (const PluginThroughput& plugin : now) {
        const PluginThroughput earlier = Earlier(before, plugin.plugin);
        std::string line =
            "plugin " + plugin.plugin + ":" + Sentence("in", Describe(earlier.in, plugin.in, seconds));
        for (const auto& [name, traffic] : plugin.out) {
            line += Sentence(name.empty() ? "out" : "out " + name,
                             Describe(FindOutput(earlier, name), traffic, seconds));
        }
        if (plugin.queue) {
            line += FormatText(" queue %u of %u, at most %u; dropped %llu, in all %llu;",
                               plugin.queue->waiting, plugin.queue->capacity, plugin.queue->highWaterMark,
                               static_cast<unsigned long long>(NewDrops(earlier, plugin)),
                               static_cast<unsigned long long>(plugin.queue->dropped));
        }
        line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

} // namespace calvane_program
