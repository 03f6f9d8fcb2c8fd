#include <gtest/gtest.h>

#include "calvane/graph/MultiOutputFilterPlugin.h"
#include "calvane/graph/MultiOutputSourcePlugin.h"
#include "calvane/graph/Pipeline.h"
#include "calvane/graph/PluginContainer.h"
#include "calvane/graph/SettingException.h"
#include "quarn/core/LogCapture.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using quarn::core::LogCapture;
using quarn::osa::TimeStruct;

namespace {

class Splitter : public MultiOutputFilterPlugin {
public:
    Splitter()
        : MultiOutputFilterPlugin(TestConfig("splitter")), a(CreateSource("a")), b(CreateSource("b")) {}
    void OnBuffer(const Sink*, Buffer* buffer) override {
        a->PushBuffer(buffer->Duplicate());
        b->PushBuffer(buffer);
    }
    std::unique_ptr<Source> a;
    std::unique_ptr<Source> b;
};

class TwoTracks : public MultiOutputSourcePlugin {
public:
    TwoTracks() : MultiOutputSourcePlugin(TestConfig("tracks")), video(CreateSource("video")) {}
    bool OnGenerateBuffer(TimeStruct&) override {
        video->PushBuffer(MakeBuffer("v"));
        return false;
    }
    std::unique_ptr<Source> video;
};

/// Counts the plugins of its kind and when they were told that everything is built.
class Witness : public TestFilter {
public:
    explicit Witness(const std::string& name) : TestFilter(name) { ++alive; }
    ~Witness() override { --alive; }
    void PipelinesConstructed() override { told.push_back(GetName()); }
    static inline int alive = 0;
    static inline std::vector<std::string> told;
};

} // namespace

TEST(PipelinePlugin, SaysWhatItCannotDoWithoutHandlers) {
    class Bare : public PipelinePlugin {
    public:
        Bare() : PipelinePlugin("bare") {}
    };
    const LogCapture log;
    const PluginPtr plugin(new Bare());
    Sink sink(nullptr);
    TimeStruct next;
    const std::string refused = "Unable to connect to plugin bare: No source available";
    EXPECT_EQ(refused, ThrownText([&] { plugin->ConnectToSink(&sink); }));
    EXPECT_EQ(refused, ThrownText([&] { plugin->ConnectToSink("x", &sink); }));
    EXPECT_EQ(nullptr, plugin->GetSink("in"));
    EXPECT_FALSE(plugin->DisconnectSink(&sink));
    EXPECT_FALSE(plugin->GenerateBuffer(next));
    EXPECT_TRUE(
        log.Contains("Attempt to get sink \"in\" from a plugin that doesn't implement IGetSinkHandler"));
    EXPECT_TRUE(log.Contains("DisconnectSink was not implemented"));
    EXPECT_TRUE(log.Contains("IGenerateBufferHandler not implemented!"));
}

TEST(PipelinePlugin, IsDisposedOfWithItsLastReference) {
    const LogCapture log;
    auto* const plugin = new TestSink("counted");
    plugin->IncRefCount();
    PipelinePlugin::Destroy(plugin);
    EXPECT_FALSE(log.Contains("Disposing of Plugin \"counted\""));
    PipelinePlugin::Destroy(plugin);
    EXPECT_EQ(1U, log.Count("Disposing of Plugin \"counted\""));
    PipelinePlugin::Destroy(nullptr);
    PipelinePlugin::Destroy(new TestSink(""));
    EXPECT_TRUE(log.Contains("Disposing of Plugin \"?\?\""));
}

TEST(PipelinePlugin, PutsItsNameBeforeAnError) {
    const LogCapture log;
    const PluginPtr plugin(new TestSink("p1"));
    EXPECT_EQ("p1: 100% bad", ThrownText([&] { plugin->Error("100% bad"); }));
    EXPECT_TRUE(log.Contains("100% bad"));
    try {
        plugin->ErrorInSetting("filename", "bad");
    } catch (const SettingException& error) {
        EXPECT_STREQ("p1: bad", error.what());
        EXPECT_EQ("p1", error.GetGroup());
        EXPECT_EQ("filename", error.GetKey());
    }
}

TEST(PluginBases, AcceptOnlyTheConnectionsOfTheirKind) {
    const LogCapture log;
    const PluginPtr source(new TestSource("source"));
    const PluginPtr filter(new TestFilter("filter"));
    const PluginPtr sink(new TestSink("sink"));
    const PluginPtr splitter(new Splitter());
    const PluginPtr tracks(new TwoTracks());
    Sink* const input = sink->GetSink();
    EXPECT_NE(nullptr, input);
    EXPECT_EQ(input, sink->GetSink("default"));
    EXPECT_EQ(nullptr, sink->GetSink("Default"));
    EXPECT_EQ(nullptr, source->GetSink());
    EXPECT_NE(nullptr, splitter->GetSink());
    for (const PluginPtr* plugin : {&source, &filter}) {
        EXPECT_EQ((*plugin)->GetName() + ": Named sources are not supported by this plugin",
                  ThrownText([&] { (*plugin)->ConnectToSink("default", input); }));
        EXPECT_THROW((*plugin)->ConnectToSink(nullptr), quarn::osa::Exception);
        EXPECT_FALSE((*plugin)->DisconnectSink(input));
    }
    for (const PluginPtr* plugin : {&splitter, &tracks}) {
        EXPECT_EQ((*plugin)->GetName() + ": Unnamed sources are not supported by this plugin",
                  ThrownText([&] { (*plugin)->ConnectToSink(input); }));
        EXPECT_EQ("No source named none exists in collection",
                  ThrownText([&] { (*plugin)->ConnectToSink("none", input); }));
    }
    EXPECT_EQ("A source named video already exists",
              ThrownText([&] { static_cast<TwoTracks&>(*tracks).CreateSource("video"); }));
    EXPECT_EQ("Unable to connect to plugin sink: No source available",
              ThrownText([&] { sink->ConnectToSink(input); }));
}

TEST(PluginBases, DisconnectASinkFromOneNamedOutputAtATime) {
    const ExpectNoBuffersLeft check;
    Collector collector;
    const PluginPtr splitter(new Splitter());
    const PluginPtr sink(new TestSink("sink", collector.Action()));
    splitter->ConnectToSink("a", sink->GetSink());
    splitter->ConnectToSink("b", sink->GetSink());
    splitter->GetSink()->PushBuffer(MakeBuffer("1"));
    EXPECT_TRUE(splitter->DisconnectSink(sink->GetSink()));
    splitter->GetSink()->PushBuffer(MakeBuffer("2"));
    EXPECT_EQ((std::vector<std::string>{"1", "1", "2"}), collector.Get());
    EXPECT_TRUE(splitter->DisconnectSink(sink->GetSink()));
    EXPECT_FALSE(splitter->DisconnectSink(sink->GetSink()));
}

TEST(Pipeline, ChainsPluginsAndBehavesAsOne) {
    const ExpectNoBuffersLeft check;
    Collector collector;
    const PluginPtr inner(new Pipeline());
    static_cast<Pipeline&>(*inner).AppendPlugin(new TestFilter("f1"));
    static_cast<Pipeline&>(*inner).AppendPlugin(new TestFilter("f2"));
    inner->IncRefCount();
    Pipeline outer;
    outer.AppendPlugin(new TestSource("s", [](Source& out, TimeStruct& next) {
        out.PushBuffer(MakeBuffer("x"));
        next = {1, 2};
        return true;
    }));
    outer.AppendPlugin(inner.get());
    outer.AppendPlugin(new TestSink("t", collector.Action()));
    TimeStruct next;
    EXPECT_TRUE(outer.GenerateBuffer(next));
    EXPECT_EQ(TimeStruct(1, 2), next);
    EXPECT_EQ((std::vector<std::string>{"x"}), collector.Get());
}

TEST(Pipeline, RefusesAndReleasesWhatDoesNotFit) {
    const LogCapture log;
    Witness::alive = 0;
    Pipeline pipeline;
    TimeStruct next;
    Sink sink(nullptr);
    EXPECT_FALSE(pipeline.GenerateBuffer(next));
    EXPECT_EQ(nullptr, pipeline.GetSink());
    EXPECT_FALSE(pipeline.DisconnectSink(&sink));
    EXPECT_TRUE(log.Contains("GenerateBuffer called on empty pipeline"));
    EXPECT_TRUE(log.Contains("Tried to get Sink \"default\" from empty pipeline"));
    EXPECT_TRUE(log.Contains("Tried to disconnect a Sink from an empty Pipeline"));
    EXPECT_EQ("Pipeline: Can't connect a Sink to an empty Pipeline",
              ThrownText([&] { pipeline.ConnectToSink(&sink); }));
    EXPECT_EQ("Pipeline: pPlugin must not be NULL", ThrownText([&] { pipeline.AppendPlugin(nullptr); }));

    pipeline.AppendPlugin(new TestSource("head"));
    EXPECT_EQ("Pipeline: Attempt to put a source plugin at the end of the pipeline",
              ThrownText([&] { pipeline.AppendPlugin(new TestSource("second")); }));
    EXPECT_EQ(1U, log.Count("Disposing of Plugin \"second\""));
    pipeline.AppendPlugin(new Witness("filter"));
    pipeline.ConnectToSink(&sink);
    EXPECT_EQ("Pipeline: Can't append to a Pipeline after it has been attached to a Sink",
              ThrownText([&] { pipeline.AppendPlugin(new Witness("late")); }));
    EXPECT_EQ(1, Witness::alive);
    EXPECT_TRUE(pipeline.DisconnectSink(&sink));
    EXPECT_THROW(pipeline.AppendPlugin(new Witness("later")), quarn::osa::Exception);
    EXPECT_EQ(1, Witness::alive);
}

TEST(PluginContainer, HoldsPluginsAndDrivesTheFirst) {
    Witness::alive = 0;
    Witness::told.clear();
    TimeStruct next;
    {
        PluginContainer container;
        EXPECT_EQ("No Generator Plugin has been specified",
                  ThrownText([&] { container.GenerateBuffer(next); }));
        auto* const shared = new Witness("b");
        container.AddPlugin(new TestSource("head", [](auto&, auto&) { return true; }));
        container.AddPlugin(shared);
        container.AddPlugin(new Witness("a"));
        shared->IncRefCount();
        container.AddPlugin(shared);
        EXPECT_TRUE(container.GenerateBuffer(next));
        container.PipelinesConstructed();
        EXPECT_EQ((std::vector<std::string>{"b", "a", "b"}), Witness::told);
        PluginContainer other;
        swap(container, other);
        EXPECT_TRUE(other.GenerateBuffer(next));
        EXPECT_THROW(container.GenerateBuffer(next), quarn::osa::Exception);
        EXPECT_EQ(2, Witness::alive);
    }
    EXPECT_EQ(0, Witness::alive);
}
