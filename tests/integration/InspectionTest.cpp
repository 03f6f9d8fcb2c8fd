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

TEST_F(InspectionTest, TellsWhatEachTypeReadsTakesAndGives) {
    const auto source = Plugins({"FileSource"});
    EXPECT_EQ("loop buffer.blocksize.bytes buffer.total filename! buffer.maxcount ", Keys(source));
    EXPECT_EQ(R"({"default":-1,"key":"buffer.total","kind":"integer","required":false})",
              source["settings"][2].dump());
    EXPECT_EQ("[] [\"\"]", source["inputs"].dump() + " " + source["outputs"].dump());
    EXPECT_EQ("FileSource: You must provide a valid filename setting", source["failure"]);
    const auto sink = Plugins({"FileSink"});
    EXPECT_EQ("filename! openmode start.count end.count ", Keys(sink));
    EXPECT_EQ("[\"default\"] []", sink["inputs"].dump() + " " + sink["outputs"].dump());
    const auto statistics = Plugins({"StatsCollectorPlugin"});
    EXPECT_TRUE(statistics["readsOtherSettings"]);
    EXPECT_TRUE(statistics["failure"].is_null());

    ASSERT_EQ(0, Calvane({"plugins", "QueuePlugin"}));
    EXPECT_THAT(out, HasSubstr("inputs:   default\noutputs:  one without a name\nsettings:\n"
                               "  queue.length             integer  500\n"));
    EXPECT_EQ("", err);
    EXPECT_EQ(2, Calvane({"plugins", "QuePlugin"}));
    EXPECT_EQ("calvane: No registered plugin with type QuePlugin (did you mean \"QueuePlugin\"?)\n", err);
    EXPECT_TRUE(std::filesystem::is_empty(folder.Path()));
}

TEST_F(InspectionTest, TellsOfModules) {
    const auto module = Plugins({"--module", kGood});
    EXPECT_EQ("1.3.0 [\"Invert\",\"Nothing\",\"Thrower\"]",
              module["version"].get<std::string>() + " " + module["types"].dump());
    EXPECT_EQ("mask ", Keys(Plugins({"Invert", "--module", kGood})));
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
                 "[a]\nt.plugin.type = FileSource\nt.pipeline.next.video = queue, odd \"x\\\n"
                 "[b]\nt.plugin.type = FileSource\nt.pipeline.next = odd \"x\\, odd \"x\\\n"
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
                  frame(0, "thread: pipeline p", "    \"a\" [label=\"a\\nFileSource\"];\n") +
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
