#include <dlfcn.h>
#include <gmock/gmock.h>

#include "calvane/config/PluginManager.h"
#include "support/TempFolder.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using testing::StartsWith;

namespace {

const std::string kFolder = CALVANE_TEST_MODULE_DIR;
const std::string kGood = kFolder + "/GoodModule.so";

PipelinePlugin* Create(PluginManager& plugins, const std::string& module, const std::string& type,
                       const Settings& settings = {}) {
    return plugins.CreatePlugin(TestConfig("p", settings, type, module));
}

bool IsLoaded(const std::string& module) {
    void* const handle = dlopen(module.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

} // namespace

TEST(Module, GivesPluginsAndIsUnloadedWithItsManager) {
    const ExpectNoBuffersLeft check;
    const LogCapture log;
    {
        PluginManager plugins;
        Collector collector;
        const PluginPtr invert(Create(plugins, kGood, "Invert"));
        const PluginPtr sink(new TestSink("sink", collector.Action()));
        invert->ConnectToSink(sink->GetSink());
        invert->GetSink()->PushBuffer(MakeBuffer("02"));
        EXPECT_EQ((Texts{"13"}), collector.Get());
        EXPECT_TRUE(IsLoaded(kGood));
    }
    EXPECT_FALSE(IsLoaded(kGood));
    EXPECT_EQ(1U, log.Count("Unloading module " + kGood));
}

TEST(Module, ThatMisbehavesIsReportedByNameAndPath) {
    const LogCapture log;
    PluginManager plugins;
    const auto refusal = [&](const std::string& type, const Settings& settings = {}) {
        return ThrownText([&] { Create(plugins, kGood, type, settings); });
    };
    const std::string returned = " factory method in module " + kGood + " returned ";
    EXPECT_EQ("Thrower" + returned + "threw no camera", refusal("Thrower"));
    EXPECT_EQ("Thrower" + returned + "threw bad setting", refusal("Thrower", {{"setting", "1"}}));
    EXPECT_EQ("Nothing" + returned + "NULL", refusal("Nothing"));
    EXPECT_THAT(refusal("Unknown"),
                StartsWith("Cannot find symbol CalvaneCreatePlugin__Unknown in module " + kGood));
    EXPECT_EQ(1U, log.Count("Loading module " + kGood)); // It stays, whatever its plugins do.
}

TEST(Module, ThatDoesNotFitIsRefusedAndNotKept) {
    PluginManager plugins;
    const TempFolder folder;
    const std::string tooNew = kFolder + "/TooNewModule.so";
    const std::string noModule = kFolder + "/NoModule.so";
    const std::string noElf = folder.Write("text.so", "this is no ELF file");
    const std::map<std::string, std::string> reasons{
        {tooNew, tooNew +
                     " expects version 1.4.0 of calvane, which is incompatible with the current version of "
                     "1.3.0"},
        {noModule, "Cannot find symbol gCalvaneModuleDefinition in module " + noModule},
        {noElf, "Cannot load module " + noElf + ": "}};
    for (const auto& [module, reason] : reasons) {
        EXPECT_THAT(ThrownText([&, path = module] { Create(plugins, path, "Any"); }), StartsWith(reason));
        EXPECT_FALSE(IsLoaded(module));
    }
    EXPECT_NE(nullptr, PluginPtr(Create(plugins, kGood, "Invert")));
}

TEST(Module, StaysLoadedWhileItsPluginsOutliveTheManager) {
    const LogCapture log;
    PluginPtr plugin;
    {
        PluginManager plugins;
        plugin.reset(Create(plugins, kGood, "Invert"));
    }
    EXPECT_EQ(1U, log.Count("Module " + kGood + " stays loaded: plugin p is still in use"));
    EXPECT_EQ("p", plugin->GetName());
    plugin.reset();
}
