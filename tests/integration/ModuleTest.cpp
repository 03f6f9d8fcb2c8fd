#include <dlfcn.h>
#include <gmock/gmock.h>

#include "calvane/config/DescriptionCheck.h"
#include "calvane/config/ModuleFile.h"
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

TEST(Module, IsKnownByTheNameThatTheConfigurationGives) {
    const TempFolder folder;
    std::filesystem::create_symlink(kGood, folder.Path("link.so"));
    setenv("CALVANE_PLUGIN_PATH", (folder.Path() + ":" + kFolder).c_str(), 1);
    const LogCapture log;
    {
        PluginManager plugins;
        for (const std::string& name :
             {std::string("GoodModule.so"), std::string("link.so"), std::string("link.so")}) {
            PluginPtr(Create(plugins, name, "Invert")).reset();
        }
        EXPECT_EQ("Thrower factory method in module link.so returned threw no camera",
                  ThrownText([&] { Create(plugins, "link.so", "Thrower"); }));
        EXPECT_THAT(
            ThrownText([&] { Create(plugins, "none.so", "Invert"); }),
            StartsWith("Module \"none.so\" cannot be found in " + folder.Path() + ", " + kFolder + ", "));
    }
    for (const auto& [name, file] : {std::pair(std::string("GoodModule.so"), kGood),
                                     std::pair(std::string("link.so"), folder.Path("link.so"))}) {
        EXPECT_EQ(1U, log.Count("Loading module " + name));
        EXPECT_EQ(1U, log.Count("Module " + name + " is the file " + file));
        EXPECT_EQ(1U, log.Count("Unloading module " + name));
    }
    EXPECT_FALSE(IsLoaded(kGood));
    unsetenv("CALVANE_PLUGIN_PATH");
}

TEST(ModuleFile, TellsWhatAModuleIsWithoutLoadingIt) {
    const ModuleFile good(kGood);
    EXPECT_EQ((Texts{"Crasher", "Invert", "Nothing", "Split", "Thrower"}), good.GetTypes());
    EXPECT_EQ("[plugin]\nsummary = Ends the process\ninputs = default\n",
              good.GetDeclarations().at("Crasher"));
    EXPECT_EQ(1U, good.GetDeclarations().size());
    EXPECT_EQ(3, good.GetVersion().minor);
    EXPECT_EQ(4, ModuleFile(kFolder + "/TooNewModule.so").GetVersion().minor);
    EXPECT_FALSE(IsLoaded(kGood));

    const TempFolder folder;
    const std::string zero = kFolder + "/ZeroVersionModule.so";
    const std::string noModule = kFolder + "/NoModule.so";
    const std::map<std::string, std::string> reasons{
        {noModule, "Cannot find symbol gCalvaneModuleDefinition in module " + noModule +
                       "; CALVANE_DEFINE_MODULE() defines it"},
        {zero, "Cannot load module " + zero + ": it holds no value of gCalvaneModuleDefinition"},
        {"/dev/null", "Cannot load module /dev/null: it is not a regular file"},
        {folder.Path("none"), "Cannot load module " + folder.Path("none") + ": No such file or directory"}};
    for (const auto& [path, reason] : reasons) {
        EXPECT_EQ(reason, ThrownText([path = path] { const ModuleFile file(path); }));
    }
}

TEST(ModuleFile, RefusesOtherProcessorsAndFilesCutShort) {
    std::ifstream stream(kGood, std::ios_base::binary);
    const std::string whole{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    const auto refusal = [](const std::string& bytes) {
        return ThrownText([&bytes] { ModuleFile::FromBytes(bytes, "m"); });
    };
    const auto with = [&whole](size_t place, char byte) {
        std::string changed = whole;
        changed.at(place) = byte;
        return changed;
    };
    ASSERT_EQ("nothing was thrown", refusal(whole));
    const std::string start = "Cannot load module m: it is ";
    EXPECT_EQ(start + "not an ELF file", refusal(""));
    EXPECT_THAT(refusal(whole.substr(0, 40)), StartsWith("Cannot load module m: it "));
    EXPECT_THAT(refusal(with(4, static_cast<char>(3 - whole[4]))),
                StartsWith(start + "built for another kind of processor (word size"));
    EXPECT_THAT(refusal(with(18, 8)),
                StartsWith(start + "built for another kind of processor (ELF machine 8, not"));
    EXPECT_EQ(start + "no shared object (ELF type 2)", refusal(with(16, 2)));
}

TEST(DescriptionCheck, LooksIntoModules) {
    const auto finding = [](const std::string& module, const std::string& type) {
        const auto findings =
            CheckDescription(IniFile::FromText("[calvane]\nt.pipelines = p\n[p]\nt.pipeline.head = a\n[a]\n"
                                               "t.plugin.type = " +
                                               type + "\nt.plugin.module = " + module + "\n"));
        return findings.empty() ? "" : findings[0].key + ": " + findings[0].text;
    };
    const std::string tooNew = kFolder + "/TooNewModule.so";
    EXPECT_EQ("", finding(kGood, "Invert"));
    EXPECT_EQ(
        "t.plugin.type: Module " + kGood + " exports no plugin with type Inverted (did you mean \"Invert\"?)",
        finding(kGood, "Inverted"));
    EXPECT_EQ("t.plugin.type: Module " + kFolder +
                  "/EmptyModule.so exports no plugin with type Any; "
                  "CALVANE_EXPORT_PLUGIN exports one",
              finding(kFolder + "/EmptyModule.so", "Any"));
    EXPECT_THAT(finding(tooNew, "Any"),
                StartsWith("t.plugin.module: " + tooNew + " expects version 1.4.0 of calvane, which is"));
    EXPECT_THAT(finding(kFolder, "Any"), testing::EndsWith(" is not a regular file"));
}
