#include "calvane/graph/Pipeline.h"
#include "calvane/graph/PluginContainer.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using quarn::osa::TimeStruct;

namespace {

class Told : public TestFilter {
public:
    using TestFilter::TestFilter;
    void PipelinesConstructed() override { ++count; }
    int count = 0;
};

} // namespace

TEST(PluginBases, AcceptOnlyTheConnectionsOfTheirKind) {
    const LogCapture log;
    const PluginPtr filter(new TestFilter("filter"));
    const PluginPtr sink(new TestSink("sink"));
    const PluginPtr splitter(new TestSplitter("splitter"));
    Sink* const input = sink->GetSink();
    EXPECT_EQ("filter: Named sources are not supported by this plugin",
              ThrownText([&] { filter->ConnectToSink("default", input); }));
    EXPECT_FALSE(filter->DisconnectSink(input));
    EXPECT_EQ("splitter: Unnamed sources are not supported by this plugin",
              ThrownText([&] { splitter->ConnectToSink(input); }));
    EXPECT_EQ("No source named none exists in collection",
              ThrownText([&] { splitter->ConnectToSink("none", input); }));
    EXPECT_EQ("A source named a already exists",
              ThrownText([&] { static_cast<TestSplitter&>(*splitter).CreateSource("a"); }));
    EXPECT_EQ((Texts{"a", "b"}), splitter->GetOutputNames());
    EXPECT_EQ((Texts{""}), filter->GetOutputNames());
}

TEST(PluginBases, DisconnectASinkFromOneNamedOutputAtATime) {
    const ExpectNoBuffersLeft check;
    Collector collector;
    const PluginPtr splitter(new TestSplitter("splitter"));
    const PluginPtr sink(new TestSink("sink", collector.Action()));
    splitter->ConnectToSink("a", sink->GetSink());
    splitter->ConnectToSink("b", sink->GetSink());
    splitter->GetSink()->PushBuffer(MakeBuffer("1"));
    EXPECT_TRUE(splitter->DisconnectSink(sink->GetSink()));
    splitter->GetSink()->PushBuffer(MakeBuffer("2"));
    EXPECT_EQ((Texts{"1", "1", "2"}), collector.Get());
    EXPECT_TRUE(splitter->DisconnectSink(sink->GetSink()));
    EXPECT_FALSE(splitter->DisconnectSink(sink->GetSink()));
}

TEST(Pipeline, ChainsPluginsAndBehavesAsOne) {
    const ExpectNoBuffersLeft check;
    Collector collector;
    const PluginPtr inner(new Pipeline());
    static_cast<Pipeline&>(*inner).AppendPlugin(new TestFilter("f"));
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
    EXPECT_EQ((Texts{"x"}), collector.Get());
}

TEST(Pipeline, RefusesAndReleasesWhatDoesNotFit) {
    const LogCapture log;
    Pipeline pipeline;
    Sink sink(nullptr);
    EXPECT_EQ("Pipeline: Can't connect a Sink to an empty Pipeline",
              ThrownText([&] { pipeline.ConnectToSink(&sink); }));
    pipeline.AppendPlugin(new TestSource("head"));
    EXPECT_EQ("Pipeline: Attempt to put a source plugin at the end of the pipeline",
              ThrownText([&] { pipeline.AppendPlugin(new TestSource("second")); }));
    EXPECT_EQ(1U, log.Count("Disposing of Plugin \"second\""));
    pipeline.ConnectToSink(&sink);
    EXPECT_EQ("Pipeline: Can't append to a Pipeline after it has been attached to a Sink",
              ThrownText([&] { pipeline.AppendPlugin(new TestFilter("late")); }));
    EXPECT_EQ(1U, log.Count("Disposing of Plugin \"late\""));
    EXPECT_TRUE(pipeline.DisconnectSink(&sink));
}

TEST(PluginContainer, HoldsPluginsAndDrivesTheFirst) {
    const LogCapture log;
    TimeStruct next;
    {
        PluginContainer container;
        EXPECT_EQ("No Generator Plugin has been specified",
                  ThrownText([&] { container.GenerateBuffer(next); }));
        auto* const shared = new Told("shared");
        container.AddPlugin(new TestSource("head", [](auto&, auto&) { return true; }));
        container.AddPlugin(shared);
        shared->IncRefCount();
        container.AddPlugin(shared);
        container.PipelinesConstructed();
        EXPECT_EQ(2, shared->count);
        PluginContainer alone;
        shared->IncRefCount();
        alone.AddPlugin(shared);
        alone.PipelinesConstructed(); // The first one, too.
        EXPECT_EQ(3, shared->count);
        PluginContainer other;
        swap(container, other);
        EXPECT_TRUE(other.GenerateBuffer(next));
        EXPECT_THROW(container.GenerateBuffer(next), quarn::osa::Exception);
        EXPECT_EQ(0U, log.Count("Disposing of Plugin \"shared\""));
    }
    EXPECT_EQ(1U, log.Count("Disposing of Plugin \"shared\""));
}
