#include <gtest/gtest.h>

#include "calvane/config/PipelineLoader.h"
#include "calvane/config/PluginManager.h"
#include "calvane/graph/MultiOutputSourcePlugin.h"
#include "calvane/graph/PluginContainer.h"
#include "calvane/graph/SettingException.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/LogCapture.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using quarn::core::IniFile;
using quarn::core::LogCapture;

namespace {

Collector* collected = nullptr;

class Outputs : public MultiOutputSourcePlugin {
public:
    explicit Outputs(const IPluginConfiguration& config)
        : MultiOutputSourcePlugin(config), a(CreateSource("a")), b(CreateSource("b")) {}
    bool OnGenerateBuffer(quarn::osa::TimeStruct&) override {
        b->PushBuffer(MakeBuffer("b"));
        a->PushBuffer(MakeBuffer("a"));
        return false;
    }
    std::unique_ptr<Source> a;
    std::unique_ptr<Source> b;
};

PipelinePlugin* MakeSource(CalvaneEnv*, const IPluginConfiguration& config) {
    return new TestSource(config.GetPluginName(), [](Source& out, auto&) {
        out.PushBuffer(MakeBuffer("x"));
        return false;
    });
}
PipelinePlugin* MakeFilter(CalvaneEnv*, const IPluginConfiguration& config) {
    return new TestFilter(config.GetPluginName());
}
PipelinePlugin* MakeSink(CalvaneEnv*, const IPluginConfiguration& config) {
    const std::string name = config.GetPluginName();
    return new TestSink(name, [name](Buffer& buffer) { collected->Add(name + ":" + TextOf(buffer)); });
}
PipelinePlugin* MakeOutputs(CalvaneEnv*, const IPluginConfiguration& config) {
    return new Outputs(config);
}
PipelinePlugin* MakeNothing(CalvaneEnv*, const IPluginConfiguration&) {
    return nullptr;
}

const PluginManager::PluginAutoRegister kSource("TestSource", &MakeSource);
const PluginManager::PluginAutoRegister kFilter("TestFilter", &MakeFilter);
const PluginManager::PluginAutoRegister kSink("TestSink", &MakeSink);
const PluginManager::PluginAutoRegister kOutputs("TestOutputs", &MakeOutputs);
const PluginManager::PluginAutoRegister kNothing("TestNothing", &MakeNothing);

class PipelineLoaderTest : public testing::Test {
protected:
    void SetUp() override { collected = &collector; }

    void Load(PluginContainer& container, const std::string& text) {
        const IniFile ini = IniFile::FromText(text);
        PipelineLoader(&plugins).LoadPipeline(container, ini, "p");
    }
    std::vector<std::string> RunOnce(PluginContainer& container) {
        quarn::osa::TimeStruct next;
        container.GenerateBuffer(next);
        return collector.Get();
    }
    static std::vector<std::string> NamesIn(const PluginContainer& container) {
        std::vector<std::string> names;
        for (const PipelinePlugin* plugin : container.GetPlugins()) {
            names.push_back(plugin->GetName());
        }
        return names;
    }

    Collector collector;
    PluginManager plugins;
};

using Texts = std::vector<std::string>;

} // namespace

TEST_F(PipelineLoaderTest, BuildsDepthFirstAndSharesJoinedPlugins) {
    PluginContainer container;
    Load(
        container,
        "[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=TestSource\nt.pipeline.next=f, g\n"
        "[f]\nt.plugin.type=TestFilter\nt.pipeline.next=t\n[g]\nt.plugin.type=TestFilter\nt.pipeline.next=t\n"
        "[t]\nt.plugin.type=TestSink\n");
    EXPECT_EQ((Texts{"s", "f", "t", "g", "t"}), NamesIn(container));
    EXPECT_EQ(container.GetPlugins()[2], container.GetPlugins()[4]);
    EXPECT_EQ((Texts{"t:x", "t:x"}), RunOnce(container));
}

TEST_F(PipelineLoaderTest, ConnectsNamedOutputsInOrderOfTheirKeys) {
    PluginContainer container;
    Load(
        container,
        "[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=TestOutputs\nt.pipeline.next.b=tb\nt.pipeline.next.a=ta\n"
        "t.pipeline.next=\n[ta]\nt.plugin.type=TestSink\n[tb]\nt.plugin.type=TestSink\n");
    EXPECT_EQ((Texts{"s", "ta", "tb"}), NamesIn(container));
    EXPECT_EQ((Texts{"tb:b", "ta:a"}), RunOnce(container));
}

TEST_F(PipelineLoaderTest, RefusesWhatCannotRunAndLeavesTheContainerAlone) {
    const std::string head = "[p]\nt.pipeline.head=s\n";
    const std::string source = "[s]\nt.plugin.type=TestSource\nt.pipeline.next=a\n";
    const std::map<std::string, std::string> wrong{
        {"Missing t.pipeline.head setting in p group", "[p]\n"},
        {"Missing configuration group for plugin s", head},
        {"No registered plugin with type TestSorce", head + "[s]\nt.plugin.type=TestSorce\n"},
        {"Plugin a is its own successor: s -> a -> b -> a",
         head + source +
             "[a]\nt.plugin.type=TestFilter\nt.pipeline.next=b\n"
             "[b]\nt.plugin.type=TestFilter\nt.pipeline.next=a\n"},
        {"Plugin a has no input and cannot follow s", head + source + "[a]\nt.plugin.type=TestSource\n"},
        {"No plugin was made for a of type TestNothing", head + source + "[a]\nt.plugin.type=TestNothing\n"},
        {"s: Named sources are not supported by this plugin",
         head + "[s]\nt.plugin.type=TestSource\nt.pipeline.next.x=a\n[a]\nt.plugin.type=TestSink\n"}};
    PluginContainer container;
    container.AddPlugin(new TestSource("untouched"));
    for (const auto& [message, text] : wrong) {
        const LogCapture log;
        EXPECT_EQ(message, ThrownText([&] { Load(container, text); }));
        EXPECT_EQ(text == "[p]\n" ? 0U : 1U, log.Count("LoadPipeline failed: " + message));
        EXPECT_EQ((Texts{"untouched"}), NamesIn(container));
    }
}

TEST_F(PipelineLoaderTest, CanLoadACorrectedDescriptionAfterAFailure) {
    const std::string good = "[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=TestSource\nt.pipeline.next=t\n";
    PluginContainer container;
    EXPECT_THROW(Load(container, good + "[t]\nt.plugin.type=Unknown\n"), quarn::osa::Exception);
    Load(container, good + "[t]\nt.plugin.type=TestSink\n");
    EXPECT_EQ((Texts{"t:x"}), RunOnce(container));
}

TEST_F(PipelineLoaderTest, DisconnectsSharedPluginsFromThoseThatAFailureTakesAway) {
    PluginContainer first;
    Load(first,
         "[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=TestSource\nt.pipeline.next=f\n"
         "[f]\nt.plugin.type=TestFilter\nt.pipeline.next=t\n[t]\nt.plugin.type=TestSink\n");
    PluginContainer second;
    EXPECT_THROW(Load(second,
                      "[p]\nt.pipeline.head=s2\n[s2]\nt.plugin.type=TestSource\nt.pipeline.next=f\n"
                      "[f]\nt.plugin.type=TestFilter\nt.pipeline.next=t,gone,bad\n"
                      "[t]\nt.plugin.type=TestSink\n[gone]\nt.plugin.type=TestSink\n[bad]\n"),
                 quarn::osa::Exception);
    EXPECT_EQ((Texts{"t:x"}), RunOnce(first)); // To t still, and not to what is gone.
}

TEST(PluginManager, GivesOneInstancePerNameForAsLongAsItLives) {
    PluginManager plugins;
    const LogCapture log;
    const PluginPtr first(plugins.CreatePlugin(TestConfig("one", {}, "TestFilter")));
    PluginPtr again(plugins.CreatePlugin(TestConfig("one", {}, "TestSink")));
    EXPECT_EQ(first, again);
    EXPECT_TRUE(log.Contains("Attempting to load plugin TestFilter from module "));
    EXPECT_TRUE(log.Contains("Successfully created built-in TestFilter plugin: \"one\"."));
    PluginPtr other(plugins.CreatePlugin(TestConfig("two", {}, "TestFilter")));
    other.reset();
    const PluginPtr remade(plugins.CreatePlugin(TestConfig("two", {}, "TestSink")));
    EXPECT_NE(nullptr, dynamic_cast<TestSink*>(remade.get()));
    EXPECT_EQ(nullptr, plugins.CreatePlugin(TestConfig("none", {}, "TestNothing")));
    EXPECT_EQ(nullptr, plugins.CreatePlugin(TestConfig("none", {}, "TestNothing")));
}

TEST(PluginManager, GeneratesTheLowestFreeName) {
    PluginManager plugins;
    const PluginPtr taken(plugins.CreatePlugin(TestConfig("QueuePlugin0", {}, "TestFilter")));
    const PluginPtr generated(plugins.LoadBuiltinPlugin("QueuePlugin"));
    EXPECT_EQ("QueuePlugin1", generated->GetName());
    EXPECT_EQ("QueuePlugin2", plugins.GeneratePluginNameForType("QueuePlugin"));
    EXPECT_EQ("No registered plugin with type Nothing",
              ThrownText([&] { plugins.LoadBuiltinPlugin("Nothing"); }));
    EXPECT_EQ("FileSink0: You must provide a valid setting for filename",
              ThrownText([&] { plugins.LoadBuiltinPlugin("FileSink"); }));
}

TEST(PluginManager, MayGoBeforeItsPlugins) {
    const ExpectNoBuffersLeft check;
    PluginPtr queue;
    {
        PluginManager plugins;
        queue.reset(plugins.CreatePlugin(
            TestConfig("queue", {{"procmon.timeout.seconds", "1"}, {"queue.length", "2"}}, "QueuePlugin")));
    }
    queue->GetSink()->PushBuffer(MakeBuffer("x"));
    queue.reset(); // Gives its watchdog entry back to an environment that is still there.
}
