#include <gmock/gmock.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "support/ProgramFixture.h"

using testing::HasSubstr;

namespace {

/// `calvane plugins` and `calvane graph`.
class InspectionTest : public ProgramFixture {
protected:
    /// What `calvane plugins ARGUMENTS --json` tells.
    nlohmann::json Plugins(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "plugins");
        arguments.emplace_back("--json");
        EXPECT_EQ(0, Calvane(arguments)) << err;
        return nlohmann::json::parse(out);
    }
    /// What dot makes of `out`.
    std::string Draw() const {
        folder.Write("d.dot", out);
        const std::string dot = "dot -Tsvg -o " + folder.Path("d.svg") + " " + folder.Path("d.dot");
        EXPECT_EQ(0, std::system(dot.c_str()));
        return folder.Read("d.svg");
    }
    static std::string Keys(const nlohmann::json& plugin) {
        std::string keys;
        for (const auto& setting : plugin["settings"]) {
            keys += setting["key"].get<std::string>() + (setting["required"].get<bool>() ? "! " : " ");
        }
        return keys;
    }
};

const std::string kGood = CALVANE_TEST_MODULE_DIR "/GoodModule.so";

} // namespace

TEST_F(InspectionTest, ShowsWhatTypesDeclare) {
    const auto source = Plugins({"FileSource"});
    EXPECT_EQ("filename! loop buffer.blocksize.bytes buffer.total buffer.maxcount ", Keys(source));
    EXPECT_EQ(
        R"({"default":5,"key":"buffer.maxcount","kind":"integer","range":[1,2147483647],"required":false,)"
        R"("summary":"how many buffers may be on their way at once","unit":"buffers"})",
        source["settings"][4].dump());
    EXPECT_EQ("[] [\"\"]", source["inputs"].dump() + " " + source["outputs"].dump());
    ASSERT_EQ(0, Calvane({"plugins", "FileSink"}));
    EXPECT_THAT(out, HasSubstr("inputs:   default\noutputs:  none\nthreads:  one may call it\nsettings:\n"
                               "  filename     path     required"));
    EXPECT_THAT(out, HasSubstr("  openmode     choice   truncate  truncate, append  whether "));
    EXPECT_EQ("", err);
    EXPECT_EQ(2, Calvane({"plugins", "QuePlugin"}));
    EXPECT_EQ("calvane: No registered plugin with type QuePlugin (did you mean \"QueuePlugin\"?)\n", err);
    EXPECT_TRUE(std::filesystem::is_empty(folder.Path()));
}

TEST_F(InspectionTest, ListsTheTypesOfAllModulesOnThePath) {
    folder.Write("text.so", "no module");
    folder.Write("notes.txt", "no module either");
    std::filesystem::create_symlink(kGood, folder.Path("good.so"));
    setenv("CALVANE_PLUGIN_PATH", folder.Path().c_str(), 1);
    ASSERT_EQ(0, Calvane({"plugins"}));
    EXPECT_THAT(out,
                testing::StartsWith("Built into calvane 1.3.0:\n  FileSink              Writes the bytes "));
    EXPECT_THAT(out, HasSubstr("\n" + folder.Path("good.so") +
                               ", built against calvane 1.3.0:\n  Crasher               "
                               "Ends the process\n  Invert\n"));
    EXPECT_EQ("calvane: warning: Cannot load module " + folder.Path("text.so") + ": it is not an ELF file\n",
              err);
    const auto all = Plugins({});
    EXPECT_EQ("Ends the process", all["modules"][0]["summaries"]["Crasher"]);
    unsetenv("CALVANE_PLUGIN_PATH");
}

TEST_F(InspectionTest, MakesAPluginOfAModuleThatDeclaresNothing) {
    const auto module = Plugins({"--module", kGood});
    EXPECT_EQ("1.3.0 [\"Crasher\",\"Invert\",\"Nothing\",\"Split\",\"Thrower\"]",
              module["version"].get<std::string>() + " " + module["types"].dump());
    const auto invert = Plugins({"Invert", "--module", kGood});
    EXPECT_EQ("mask [\"default\"] [\"\"]",
              Keys(invert) + invert["inputs"].dump() + " " + invert["outputs"].dump());
    const auto thrower = Plugins({"Thrower", "--module", kGood});
    EXPECT_EQ("setting ", Keys(thrower));
    EXPECT_TRUE(thrower["inputs"].is_null());
    EXPECT_THAT(thrower["failure"].get<std::string>(), HasSubstr("no camera"));
    EXPECT_EQ(2, Calvane({"plugins", "Inverse", "--module", kGood}));
    EXPECT_THAT(err, HasSubstr(" exports no plugin with type Inverse (did you mean \"Invert\"?)\n"));
    EXPECT_EQ(2, Calvane({"plugins", "--module", "none.so"}));
    EXPECT_THAT(err, HasSubstr("Module \"none.so\" cannot be found in "));
}

TEST_F(InspectionTest, DrawsThreadsAndConnections) {
    folder.Write("d.ini",
                 "[calvane]\nt.pipelines = p, q\n[p]\nt.pipeline.head = a\n[q]\nt.pipeline.head = b\n"
                 "[a]\nt.plugin.type = Invert\nt.plugin.module = " +
                     kGood +
                     "\nt.pipeline.next.video = queue, odd \"x\\\n"
                     "[b]\nt.plugin.type = FileSource\nfilename = f\nt.pipeline.next = odd \"x\\, odd \"x\\\n"
                     "[queue]\nt.plugin.type = QueuePlugin\nt.pipeline.next = \xC3\xB6 &amp;\n"
                     "[odd \"x\\]\nt.plugin.type = IdentityPlugin\n[\xC3\xB6 &amp;]\nt.plugin.type = Invert\n"
                     "t.plugin.module = " +
                     kGood + "\n");
    ASSERT_EQ(0, Calvane({"graph", "d.ini"})) << err;
    const auto frame = [](int number, const std::string& label, const std::string& nodes) {
        return "  subgraph cluster_" + std::to_string(number) + " {\n    label=\"" + label + "\";\n" + nodes +
               "  }\n";
    };
    EXPECT_EQ("digraph {\n  rankdir=LR;\n  node [shape=box];\n" +
                  frame(0, "thread: pipeline p", "    \"a\" [label=\"a\\nInvert\\n" + kGood + "\"];\n") +
                  frame(1, "thread: queue queue",
                        "    \"queue\" [label=\"queue\\nQueuePlugin\"];\n    \"\xC3\xB6 &amp;amp;\" "
                        "[label=\"\xC3\xB6 "
                        "&amp;amp;\\nInvert\\n" +
                            kGood + "\"];\n") +
                  frame(2, "several threads: pipeline p, pipeline q",
                        "    \"odd \\\"x\\\\\" [label=\"odd \\\"x\\\\\\nIdentityPlugin\"];\n") +
                  frame(3, "thread: pipeline q", "    \"b\" [label=\"b\\nFileSource\"];\n") +
                  "  \"a\" -> \"queue\" [label=\"video\"];\n"
                  "  \"a\" -> \"odd \\\"x\\\\\" [label=\"video\"];\n"
                  "  \"queue\" -> \"\xC3\xB6 &amp;amp;\";\n  \"b\" -> \"odd \\\"x\\\\\";\n}\n",
              out);
    if (std::system("dot -V > /dev/null 2>&1") != 0) {
        GTEST_SKIP() << "there is no dot (package graphviz) to draw it";
    }
    const std::string picture = Draw();
    EXPECT_THAT(picture, HasSubstr(">odd &quot;x\\</text>"));
    EXPECT_THAT(picture, HasSubstr(">\xC3\xB6 &amp;amp;</text>"));
    for (const auto& entry : std::filesystem::directory_iterator(CALVANE_SOURCE_DIR "/examples")) {
        if (entry.path().extension() == ".ini") {
            EXPECT_EQ(0, Calvane({"graph", entry.path()})) << err;
            EXPECT_THAT(Draw(), HasSubstr("<title>cluster_0</title>"));
        }
    }
}

TEST_F(InspectionTest, DrawsNothingOfABadDescription) {
    folder.Write("d.ini", "[calvane]\nt.pipelines = p\n[p]\n");
    EXPECT_EQ(2, Calvane({"graph", "d.ini"}));
    EXPECT_EQ("d.ini:3: [p] t.pipeline.head: Missing t.pipeline.head setting in p group\n", err);
    EXPECT_EQ("", out);
}
