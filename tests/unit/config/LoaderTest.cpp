#include "calvane/config/PipelineLoader.h"

#include <algorithm>

#include "calvane/config/DescriptionCheck.h"
#include "calvane/config/PluginManager.h"
#include "calvane/graph/FormatException.h"
#include "calvane/graph/PluginContainer.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;

namespace {

Collector* collected = nullptr;

using Config = IPluginConfiguration;
using Register = PluginManager::PluginAutoRegister;

const Register kSource("TestSource", [](CalvaneEnv*, const Config& config) -> PipelinePlugin* {
    return new TestSource(config.GetPluginName(), [](Source& out, auto&) {
        out.PushBuffer(MakeBuffer("x"));
        return false;
    });
});
const Register kFilter("TestFilter", [](CalvaneEnv*, const Config& config) -> PipelinePlugin* {
    return new TestFilter(config.GetPluginName());
});
const Register kSink("TestSink", [](CalvaneEnv*, const Config& config) -> PipelinePlugin* {
    return new TestSink(config.GetPluginName(), [name = config.GetPluginName()](Buffer& buffer) {
        collected->Add(name + ":" + TextOf(buffer));
    });
});
const Register kSplitter("TestSplitter", [](CalvaneEnv*, const Config& config) -> PipelinePlugin* {
    return new TestSplitter(config.GetPluginName());
});
const Register kBomb("TestBomb", [](CalvaneEnv*, const Config&) -> PipelinePlugin* { throw 42; });
const Register kPicky("TestPicky", [](CalvaneEnv*, const Config& config) -> PipelinePlugin* {
    auto* const sink = new TestSink(config.GetPluginName());
    BufferFormat required;
    required.Set("width", 640);
    sink->GetSink()->SetFormat(required);
    return sink;
});
const Register kNothing("TestNothing", [](CalvaneEnv*, const Config&) -> PipelinePlugin* { return nullptr; });

class PipelineLoaderTest : public testing::Test {
protected:
    void SetUp() override { collected = &collector; }

    void Load(PluginContainer& container, const std::string& text) {
        const IniFile ini = IniFile::FromText(text);
        PipelineLoader(&plugins).LoadPipeline(container, ini, "p");
    }
    Texts RunOnce(PluginContainer& container) {
        quarn::osa::TimeStruct next;
        container.GenerateBuffer(next);
        return collector.Get();
    }

    Collector collector;
    PluginManager plugins;
};

} // namespace

TEST_F(PipelineLoaderTest, BuildsDepthFirstAndSharesJoinedPlugins) {
    PluginContainer container;
    Load(
        container,
        "[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=TestSource\nt.pipeline.next=f, g\n"
        "[f]\nt.plugin.type=TestFilter\nt.pipeline.next=t\n[g]\nt.plugin.type=TestFilter\nt.pipeline.next=t\n"
        "[t]\nt.plugin.type=TestSink\n");
    Texts names;
    for (const PipelinePlugin* plugin : container.GetPlugins()) {
        names.push_back(plugin->GetName());
    }
    EXPECT_EQ((Texts{"s", "f", "t", "g", "t"}), names);
    EXPECT_EQ(container.GetPlugins()[2], container.GetPlugins()[4]);
    EXPECT_EQ((Texts{"t:x", "t:x"}), RunOnce(container));
}

TEST_F(PipelineLoaderTest, ConnectsNamedOutputs) {
    PluginContainer container;
    Load(container,
         "[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=TestSource\nt.pipeline.next=f\n[f]\nt.plugin.type="
         "TestSplitter\n"
         "t.pipeline.next.b=tb\nt.pipeline.next.a=ta\nt.pipeline.next=\n"
         "[ta]\nt.plugin.type=TestSink\n[tb]\nt.plugin.type=TestSink\n");
    EXPECT_EQ((Texts{"ta:x", "tb:x"}), RunOnce(container));
}

TEST_F(PipelineLoaderTest, RefusesWhatCannotRunUntilItIsCorrected) {
    const std::string head = "[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=";
    const std::string source = head + "TestSource\nt.pipeline.next=a\n[a]\nt.plugin.type=";
    const std::map<std::string, std::string> wrong{
        {"Missing configuration group for plugin s", "[p]\nt.pipeline.head=s\n"},
        {"No registered plugin with type TestSorce", head + "TestSorce\n"},
        {"Plugin a is its own successor: a -> b -> a",
         source + "TestFilter\nt.pipeline.next=b\n[b]\nt.plugin.type=TestFilter\nt.pipeline.next=a\n"},
        {"Plugin a has no input and cannot follow s", source + "TestSource\n"},
        {"No plugin was made for a of type TestNothing", source + "TestNothing\n"},
        {"s: Named sources are not supported by this plugin",
         head + "TestSource\nt.pipeline.next.x=a\n[a]\nt.plugin.type=TestSink\n"}};
    PluginContainer container;
    container.AddPlugin(new TestSource("untouched"));
    for (const auto& [message, text] : wrong) {
        const LogCapture log;
        EXPECT_EQ(message, ThrownText([&, description = text] { Load(container, description); }));
        EXPECT_EQ(1U, log.Count("LoadPipeline failed: " + message));
        EXPECT_EQ("untouched", container.GetPlugins().at(0)->GetName());
    }
    Load(container, source + "TestSink\n");
    EXPECT_EQ((Texts{"a:x"}), RunOnce(container));
}

// Neither may exhaust memory or stack, which is what such a description would otherwise do.
TEST_F(PipelineLoaderTest, RefusesTooManyWaysAndTooLongOnes) {
    std::string ladder = "[calvane]\nt.pipelines=p\n[p]\nt.pipeline.head=s0\n";
    std::string chain = ladder;
    for (int i = 0; i != 30; ++i) { // The source and its filters; each plugin twice in its successor's list.
        const std::string next = "t.pipeline.next=s" + std::to_string(i + 1);
        ladder += "[s" + std::to_string(i) + "]\nt.plugin.type=" + (i == 0 ? "TestSource" : "TestFilter") +
                  "\n" + next + "," + next.substr(next.find('s')) + "\n";
    }
    for (int i = 0; i != 1001; ++i) {
        chain += "[s" + std::to_string(i) + "]\nt.plugin.type=" + (i == 0 ? "TestSource" : "TestFilter") +
                 "\nt.pipeline.next=s" + std::to_string(i + 1) + "\n";
    }
    const std::map<std::string, std::string> excessive{
        {"The plugins of this pipeline stand in more than 100000 places: too many ways lead to the same ones",
         ladder + "[s30]\nt.plugin.type=TestSink\n"},
        {"More than 1000 plugins follow one another", chain + "[s1001]\nt.plugin.type=TestSink\n"}};
    PluginContainer container;
    for (const auto& [message, text] : excessive) {
        const LogCapture log(quarn::core::LogLevel::Off);
        EXPECT_EQ(message, ThrownText([&, description = text] { Load(container, description); }));
        const std::vector<DescriptionDiagnostic> findings = CheckDescription(IniFile::FromText(text));
        EXPECT_TRUE(std::any_of(findings.begin(), findings.end(),
                                [wanted = message](const auto& finding) { return finding.text == wanted; }));
    }
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

// Whatever is thrown, and by whom: the survivors push only to what is still there.
TEST_F(PipelineLoaderTest, PassesOnWhatIsThrownUnchangedAndRollsBack) {
    const std::string text =
        "[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=TestSource\nt.pipeline.next=f\n"
        "[f]\nt.plugin.type=TestFilter\nt.pipeline.next=t\n[t]\nt.plugin.type=TestSink\n";
    const std::string more =
        "[p]\nt.pipeline.head=s2\n[s2]\nt.plugin.type=TestSource\nt.pipeline.next=f\n"
        "[f]\nt.plugin.type=TestFilter\nt.pipeline.next=t,gone,bad\n[t]\n"
        "t.plugin.type=TestSink\n[gone]\nt.plugin.type=TestSink\n[bad]\nt.plugin.type=";
    PluginContainer first;
    PluginContainer second;
    Load(first, text);
    const LogCapture log;
    EXPECT_THROW(Load(second, more + "TestBomb\n"), int);
    EXPECT_TRUE(log.Contains("LoadPipeline failed: Unknown exception"));
    try {
        Load(second, more + "TestPicky\n");
        ADD_FAILURE() << "formats that do not fit were connected";
    } catch (const FormatException& error) {
        EXPECT_STREQ("Incompatible formats", error.what());
        EXPECT_EQ("width = 640 and no width", error.DescribeRequired() + " and " + error.DescribeOffered());
    }
    EXPECT_EQ((Texts{"t:x"}), RunOnce(first));
}

TEST(PluginManager, GivesOneInstancePerNameForAsLongAsItLives) {
    PluginManager plugins;
    const PluginPtr first(plugins.CreatePlugin(TestConfig("QueuePlugin0", {}, "TestFilter")));
    const PluginPtr again(plugins.CreatePlugin(TestConfig("QueuePlugin0", {}, "TestSink")));
    EXPECT_EQ(first, again);
    EXPECT_EQ("QueuePlugin1", PluginPtr(plugins.LoadBuiltinPlugin("QueuePlugin"))->GetName());
    PluginPtr(plugins.CreatePlugin(TestConfig("two", {}, "TestFilter"))).reset();
    const PluginPtr remade(plugins.CreatePlugin(TestConfig("two", {}, "TestSink")));
    EXPECT_NE(nullptr, dynamic_cast<TestSink*>(remade.get()));
}

TEST(PluginManager, DoesNotGiveOutAPluginThatIsOnItsWayOut) {
    static PluginManager plugins;
    static PipelinePlugin* dying = nullptr;
    static PipelinePlugin* given = nullptr;
    struct Dying : TestFilter {
        Dying() : TestFilter("d") { dying = this; }
        ~Dying() override { given = plugins.CreatePlugin(TestConfig("d", {}, "TestSink")); }
    };
    PluginManager::RegisterPlugin(
        "Dying", [](CalvaneEnv*, const IPluginConfiguration&) -> PipelinePlugin* { return new Dying; });
    PluginPtr(plugins.CreatePlugin(TestConfig("d", {}, "Dying"))).reset();
    ASSERT_NE(dying, given);
    PipelinePlugin::Destroy(given);
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
