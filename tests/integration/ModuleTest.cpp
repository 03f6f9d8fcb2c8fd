#include <dlfcn.h>
#include <gtest/gtest.h>

#include "calvane/config/PluginManager.h"
#include "calvane/graph/SettingException.h"
#include "quarn/core/LogCapture.h"
#include "support/TempFolder.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using quarn::core::LogCapture;

namespace {

const std::string kFolder = CALVANE_TEST_MODULE_DIR;
const std::string kGood = kFolder + "/GoodModule.so";

PipelinePlugin* Create(PluginManager& plugins, const std::string& module, const std::string& type,
                       const std::map<std::string, std::string>& settings = {}) {
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
        const PluginPtr invert(Create(plugins, kGood, "Invert", {{"mask", "1"}}));
        const PluginPtr sink(new TestSink("sink", collector.Action()));
        invert->ConnectToSink(sink->GetSink());
        invert->GetSink()->PushBuffer(MakeBuffer("02"));
        EXPECT_EQ((std::vector<std::string>{"13"}), collector.Get());
        EXPECT_TRUE(IsLoaded(kGood));
    }
    EXPECT_FALSE(IsLoaded(kGood));
    EXPECT_EQ(1U, log.Count("Loading module " + kGood));
    EXPECT_EQ(1U, log.Count("Successfully created Invert plugin from module " + kGood + ": \"p\"."));
    EXPECT_EQ(1U, log.Count("Unloading module " + kGood));
}

TEST(Module, ThatMisbehavesIsReportedByNameAndPath) {
    const LogCapture log;
    PluginManager plugins;
    EXPECT_EQ("Thrower factory method in module " + kGood + " returned threw no camera",
              ThrownText([&] { Create(plugins, kGood, "Thrower"); }));
    try {
        Create(plugins, kGood, "Thrower", {{"setting", "1"}});
        FAIL() << "nothing was thrown";
    } catch (const SettingException& error) {
        EXPECT_EQ("Thrower factory method in module " + kGood + " returned threw bad setting",
                  std::string(error.what()));
        EXPECT_EQ("setting", error.GetKey());
    }
    EXPECT_EQ("Nothing factory method in module " + kGood + " returned NULL",
              ThrownText([&] { Create(plugins, kGood, "Nothing"); }));
    EXPECT_EQ(0U, ThrownText([&] {
                      Create(plugins, kGood, "Unknown");
                  }).find("Cannot find symbol CalvaneCreatePlugin__Unknown in module " + kGood));
    EXPECT_EQ(1U, log.Count("Loading module " + kGood)); // It stays, whatever its plugins do.
}

TEST(Module, ThatDoesNotFitIsRefusedAndNotKept) {
    PluginManager plugins;
    const std::string tooNew = kFolder + "/TooNewModule.so";
    EXPECT_EQ(
        tooNew + " expects version 1.4.0 of calvane, which is incompatible with the current version of 1.3.0",
        ThrownText([&] { Create(plugins, tooNew, "Any"); }));
    EXPECT_FALSE(IsLoaded(tooNew));
    const std::string noModule = kFolder + "/NoModule.so";
    EXPECT_EQ(0U, ThrownText([&] {
                      Create(plugins, noModule, "Any");
                  }).find("Cannot find symbol gCalvaneModuleDefinition in module " + noModule));
    EXPECT_FALSE(IsLoaded(noModule));
    const TempFolder folder;
    const std::string noElf = folder.Write("text.so", "this is no ELF file");
    EXPECT_EQ(0U,
              ThrownText([&] { Create(plugins, noElf, "Any"); }).find("Cannot load module " + noElf + ": "));
    const PluginPtr stillWorks(Create(plugins, kGood, "Invert"));
    EXPECT_NE(nullptr, stillWorks);
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
