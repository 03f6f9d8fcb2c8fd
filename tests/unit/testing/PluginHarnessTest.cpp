#include "calvane/testing/PluginHarness.h"

#include "calvane/graph/MultiOutputFilterPlugin.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using namespace quarn::calvane::testkit;

namespace {

/// Requires a height, and splits each buffer into two outputs, once told that all pipelines are there.
class Halves : public MultiOutputFilterPlugin {
public:
    Halves(CalvaneEnv*, const IPluginConfiguration& config)
        : MultiOutputFilterPlugin(config), at_(static_cast<unsigned int>(config.GetIntOrDefault("at", 1))) {
        BufferFormat required;
        required.Set("height", 2);
        GetSink()->SetFormat(required);
    }
    void PipelinesConstructed() override { ++constructed_; }
    void OnBuffer(const Sink*, Buffer* buffer) override {
        const std::unique_ptr<Buffer> owned(buffer);
        if (constructed_ != 1) {
            Error("told " + std::to_string(constructed_) + " times");
        }
        head_->PushBuffer(owned->CreateSubBuffer(0, at_));
        tail_->PushBuffer(owned->CreateSubBuffer(at_));
    }

private:
    const unsigned int at_;
    int constructed_ = 0;
    const std::unique_ptr<Source> head_{CreateSource("head")};
    const std::unique_ptr<Source> tail_{CreateSource("tail")};
};

} // namespace

TEST(PluginHarness, FeedsAPluginTheWayAPipelineDoesAndCollectsAllOutputs) {
    const ExpectNoBuffersLeft check;
    PluginHarness harness(Construct<Halves>, {{"at", "2 bytes"}, {"mistyped", "1"}});
    EXPECT_EQ(Texts{"mistyped"}, harness.GetUnreadSettings());
    CollectingSink& head = harness.ConnectOutput("head");
    CollectingSink& tail = harness.ConnectOutput("tail");
    EXPECT_EQ("Incompatible formats", ThrownText([&] { harness.Push("refused"); }));
    BufferFormat format;
    format.Set("height", 2);
    harness.SetFormat(format);

    Buffer* const buffer = MakeBuffer("abcd");
    buffer->GetFormat() = format;
    buffer->GetMetadata().SetValue("key", 7);
    buffer->SetTimestamp({3, 4});
    harness.Push(buffer);
    harness.Push("efg");
    EXPECT_EQ((Texts{"ab", "ef"}), head.GetTexts());
    EXPECT_EQ((Texts{"cd", "g"}), tail.GetTexts());
    const ReceivedBuffer received = tail.GetBuffers().front();
    EXPECT_EQ(format, received.format);
    EXPECT_EQ(7, received.metadata.GetInt("key"));
    EXPECT_EQ(quarn::osa::TimeStruct(3, 4), received.timestamp);

    tail.FailWith("full");
    EXPECT_EQ("full", ThrownText([&] { harness.Push("hij"); }));
    EXPECT_EQ((Texts{"ab", "ef", "hi"}), head.GetTexts());
}

TEST(PluginHarness, SeesWhatTheThreadOfAPluginPushesAndReports) {
    const ExpectNoBuffersLeft check;
    const LogCapture log;
    PluginHarness harness("", "QueuePlugin");
    CollectingSink& output = harness.ConnectOutput();
    harness.Push("a");
    EXPECT_TRUE(output.WaitForBuffers(1));
    output.FailWith("no room");
    harness.Push("b");
    EXPECT_TRUE(harness.WaitForFailure());
    EXPECT_EQ(Texts{"plugin: no room"}, harness.GetFailures());
    EXPECT_EQ(Texts{"a"}, output.GetTexts());
}

TEST(PluginHarness, CallsAGeneratorUntilItIsOutOfDataAndNoLonger) {
    const PluginFactoryFunction countToThree = [](CalvaneEnv*, const IPluginConfiguration& config) {
        return static_cast<PipelinePlugin*>(new TestSource(
            config.GetPluginName(), [calls = 0](Source& out, quarn::osa::TimeStruct& next) mutable {
                EXPECT_TRUE(next.IsZero());
                next = {1, 0};
                out.PushBuffer(MakeBuffer(std::to_string(++calls)));
                return calls != 3;
            }));
    };
    PluginHarness harness(countToThree);
    CollectingSink& output = harness.ConnectOutput();
    EXPECT_EQ(3U, harness.GenerateAll());
    EXPECT_EQ((Texts{"1", "2", "3"}), output.GetTexts());
    EXPECT_EQ("plugin is not out of data after 5 calls", ThrownText([&] { harness.GenerateAll(5); }));
    const LogCapture log;
    EXPECT_EQ("plugin has no input", ThrownText([&] { harness.Push("a"); }));
}
