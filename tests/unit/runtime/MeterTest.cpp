#include "calvane/runtime/ConnectionMeter.h"

#include <gmock/gmock.h>

#include "calvane/config/PluginManager.h"
#include "calvane/plugins/QueuePlugin.h"
#include "calvane/runtime/PipelineManager.h"
#include "support/TestPlugins.h"
#include "support/WaitUntil.h"

using namespace quarn::calvane;
using testing::ElementsAre;

namespace {

std::vector<std::string> Describe(const ConnectionMeter& meter) {
    std::vector<std::string> lines;
    for (const auto& [connection, buffers, bytes] : meter.Read()) {
        lines.push_back(connection.upstream + "." + connection.output + ">" + connection.downstream + " " +
                        std::to_string(buffers) + " " + std::to_string(bytes));
    }
    return lines;
}

/// Requires a width of 640.
class PickySink : public TestSink {
public:
    explicit PickySink(const std::string& name) : TestSink(name) {
        BufferFormat required;
        required.Set("width", 640);
        GetSink()->SetFormat(required);
    }
};

} // namespace

// The splitter's outputs join again, so that the loader walks what follows twice, and so does the second
// pipeline.
TEST(ConnectionMeter, CountsWhatPassesEachConnectionOnce) {
    const ExpectNoBuffersLeft check;
    Collector collector;
    ConnectionMeter first;
    ConnectionMeter second;
    PluginManager::RegisterPlugin("MeterSource", [](CalvaneEnv*, const IPluginConfiguration& config) {
        return static_cast<PipelinePlugin*>(
            new TestSource(config.GetPluginName(), [sent = 0](Source& out, auto&) mutable {
                out.PushBuffer(MakeBuffer("abc"));
                return ++sent < 5;
            }));
    });
    PluginManager::RegisterPlugin("MeterSplitter", [](CalvaneEnv*, const IPluginConfiguration& config) {
        return static_cast<PipelinePlugin*>(new TestSplitter(config.GetPluginName()));
    });
    PluginManager::RegisterPlugin("MeterSink", [](CalvaneEnv*, const IPluginConfiguration& config) {
        return static_cast<PipelinePlugin*>(new TestSink(config.GetPluginName()));
    });
    PipelineManager manager;
    manager.AddConnectionTap(&first);
    manager.AddConnectionTap(&second);
    for (const std::string pipeline : {"one", "two"}) { // Loaded one after the other.
        manager.LoadFromIniFile(IniFile::FromText(
            "[calvane]\nt.pipelines=" + pipeline +
            "\n[one]\nt.pipeline.head=s1\n[two]\nt.pipeline.head=s2\n" +
            "[s1]\nt.plugin.type=MeterSource\nt.pipeline.next=split\n" +
            "[s2]\nt.plugin.type=MeterSource\nt.pipeline.next=split\n" +
            "[split]\nt.plugin.type=MeterSplitter\nt.pipeline.next.a=join\nt.pipeline.next.b=join\n" +
            "[join]\nt.plugin.type=QueuePlugin\nqueue.length=1000\nt.pipeline.next=end\n" +
            "[end]\nt.plugin.type=MeterSink\n"));
    }
    manager.PipelinesConstructed();
    manager.Start();
    manager.WaitForFinish();
    manager.Drain();
    EXPECT_THAT(Describe(first), ElementsAre("s1.>split 5 15", "split.a>join 10 30", "join.>end 20 60",
                                             "split.b>join 10 30", "s2.>split 5 15"));
    EXPECT_EQ(Describe(first), Describe(second));
    const std::vector<QueueStatus> queues = manager.GetQueueStatus();
    ASSERT_EQ(1U, queues.size());
    EXPECT_EQ("join", queues[0].name);
    EXPECT_EQ(1000U, queues[0].statistics.capacity);
    EXPECT_EQ(0U, queues[0].statistics.waiting + queues[0].statistics.dropped);
    EXPECT_GE(queues[0].statistics.highWaterMark, 1U);
}

TEST(ConnectionMeter, LeavesFormatsToTheSinkBehindIt) {
    PickySink sink("picky");
    ConnectionMeter meter;
    Source source;
    Sink* const tapped = meter.OnConnect({"a", "", "b"}, sink.GetSink());
    EXPECT_EQ("Incompatible formats", ThrownText([&] { source.ConnectTo(tapped); }));
    BufferFormat format;
    format.Set("width", 640);
    source.SetFormat(format);
    source.ConnectTo(tapped);
    format.Set("width", 641);
    EXPECT_EQ("Incompatible formats", ThrownText([&] { source.SetFormat(format); }));
    EXPECT_EQ(640, source.GetFormat().GetInt("width"));
}
