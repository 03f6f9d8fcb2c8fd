#include <gtest/gtest.h>

#include <climits>

#include "calvane/config/DefaultPluginConfiguration.h"
#include "calvane/config/DescriptionCheck.h"
#include "calvane/config/IniPluginConfig.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/LogCapture.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using quarn::core::IniFile;

namespace {

std::vector<std::string> FindingsOf(const std::string& text) {
    std::vector<std::string> lines;
    for (const DescriptionFinding& finding : CheckDescription(IniFile::FromText(text, "d.ini"))) {
        lines.push_back(std::to_string(finding.line) + (finding.isError ? " error [" : " warning [") +
                        finding.group + "] " + finding.key + ": " + finding.text);
    }
    return lines;
}

} // namespace

TEST(IniPluginConfig, ReadsSettingsAndWarnsAboutThoseNobodyRead) {
    const IniFile ini = IniFile::FromText(
        "[p]\nt.plugin.type=T\nt.custom=1\nzeta=1\nnumber=12abc\nword=abc\nempty=\n"
        "huge=99999999999\nsmall=-99999999999\nalpha=2\n");
    const quarn::core::LogCapture log;
    const IniPluginConfig config(&ini, "p");
    EXPECT_EQ("T", config.GetPluginType());
    EXPECT_EQ("", config.GetPluginModule());
    EXPECT_EQ(12, config.GetIntOrDefault("number", 5));
    EXPECT_EQ(0, config.GetIntOrDefault("word", 5));
    EXPECT_EQ(0, config.GetIntOrDefault("empty", 5));
    EXPECT_EQ(INT_MAX, config.GetIntOrDefault("huge", 5));
    EXPECT_EQ(INT_MIN, config.GetIntOrDefault("small", 5));
    EXPECT_TRUE(log.GetLines().empty());
    EXPECT_EQ(5, config.GetIntOrDefault("absent", 5));
    EXPECT_EQ("x", config.GetStringOrDefault("absent", "x"));
    EXPECT_TRUE(log.Contains("p: Using default value (5) for setting absent"));
    EXPECT_TRUE(log.Contains("p: Using default value (\"x\") for setting absent"));

    std::vector<std::string> keys{"before"};
    config.GetKeys(keys);
    EXPECT_EQ(
        (std::vector<std::string>{"before", "alpha", "empty", "huge", "number", "small", "word", "zeta"}),
        keys);
    config.LogUnusedSettings();
    ASSERT_EQ(4U, log.GetLines().size());
    EXPECT_EQ("p: Setting alpha was never used.", log.GetLines()[2].text);
    EXPECT_EQ("p: Setting zeta was never used.", log.GetLines()[3].text);
}

TEST(IniPluginConfig, NamesTheGroupOrKeyThatIsMissing) {
    const IniFile ini = IniFile::FromText("[p]\nx=1\n");
    EXPECT_EQ("Missing configuration group for plugin q", ThrownText([&] { IniPluginConfig(&ini, "q"); }));
    EXPECT_EQ("Missing t.plugin.type setting for plugin p", ThrownText([&] { IniPluginConfig(&ini, "p"); }));
    const DefaultPluginConfiguration made("Foo");
    EXPECT_EQ("Foo/Foo/", made.GetPluginType() + "/" + made.GetPluginName() + "/" + made.GetPluginModule());
    EXPECT_EQ("d", made.GetStringOrDefault("x", "d"));
}

TEST(DescriptionCheck, FindsNothingWrongInAGoodDescription) {
    EXPECT_EQ(std::vector<std::string>(), FindingsOf("[calvane]\nt.pipelines = one, two\n"
                                                     "[one]\nt.pipeline.head=a\nthread.priority=-119\n"
                                                     "[two]\nt.pipeline.head=c\nthread.stack.bytes=65536\n"
                                                     "[a]\nt.plugin.type=FileSource\nt.pipeline.next=b,b\n"
                                                     "[b]\nt.plugin.type=FileSink\nt.pipeline.next=\n"
                                                     "[c]\nt.plugin.type=FileSource\nt.pipeline.next.x=b\n"));
}

TEST(DescriptionCheck, ReportsAllThatIsWrongInTheOrderOfLines) {
    const std::vector<std::string> findings = FindingsOf(
        "[calvane]\n"
        "t.pipelines = one,two,,one,gone\n" // 2
        "[one]\n"
        "t.pipeline.heed = a\n" // 4
        "[two]\n"
        "t.pipeline.head = a\n"
        "thread.stack.bytes = -1\n"       // 7
        "thread.priority = 128\n"         // 8
        "[a]\n"                           // 9
        "t.plugin.type = FileSorce\n"     // 10
        "t.pipeline.next = b, nowhere\n"  // 11
        "t.pipeline.next.out = c\n"       // 12
        "[b]\n"                           // 13
        "t.plugin.type = X\n"             // 14
        "t.plugin.module = /no/such.so\n" // 15
        "t.pipeline.net = c\n"            // 16
        "[c]\n"                           // 17
        "t.pipeline.next = d\n"           // 18
        "[d]\n"                           // 19
        "t.plugin.type = QueuePlugin\n"   // 20
        "t.pipeline.next.out = c\n"       // 21
        "[left-over]\n");                 // 22
    const std::vector<std::string> expected{
        "2 error [calvane] t.pipelines: A name is missing between the commas of \"one,two,,one,gone\"",
        "2 error [calvane] t.pipelines: Pipeline one is named twice",
        "2 error [calvane] t.pipelines: Missing configuration group for pipeline gone (did you mean "
        "\"one\"?)",
        "3 error [one] t.pipeline.head: Missing t.pipeline.head setting in one group",
        "4 warning [one] t.pipeline.heed: Setting t.pipeline.heed is unknown (did you mean "
        "\"t.pipeline.head\"?)",
        "7 error [two] thread.stack.bytes: Invalid value of \"-1\" for setting thread.stack.bytes in "
        "pipeline "
        "two",
        "8 error [two] thread.priority: Invalid value of \"128\" for setting thread.priority in pipeline two",
        "10 error [a] t.plugin.type: No registered plugin with type FileSorce (did you mean \"FileSource\"?)",
        "11 error [a] t.pipeline.next: Missing configuration group for plugin nowhere",
        "15 error [b] t.plugin.module: Module \"/no/such.so\" cannot be found",
        "16 warning [b] t.pipeline.net: Setting t.pipeline.net is unknown (did you mean "
        "\"t.pipeline.next\"?)",
        "17 error [c] t.plugin.type: Missing t.plugin.type setting for plugin c",
        "21 error [d] t.pipeline.next.out: Plugin c is its own successor: c -> d -> c",
        "22 warning [left-over] : Nothing refers to this group"};
    EXPECT_EQ(expected, findings);
}

TEST(DescriptionCheck, SeesWhatIsMissingAltogetherAndHeadsThatAreShared) {
    EXPECT_EQ((std::vector<std::string>{"0 error [calvane] : Missing group [calvane]",
                                        "1 warning [x] : Nothing refers to this group"}),
              FindingsOf("[x]\n"));
    EXPECT_EQ((std::vector<std::string>{
                  "1 error [calvane] t.pipelines: Missing t.pipelines setting in calvane group"}),
              FindingsOf("[calvane]\n"));
    EXPECT_EQ(
        (std::vector<std::string>{
            "6 warning [q] t.pipeline.head: Plugin a also heads pipeline p: two threads would drive it"}),
        FindingsOf("[calvane]\nt.pipelines=p,q\n[p]\nt.pipeline.head=a\n[q]\nt.pipeline.head=a\n"
                   "[a]\nt.plugin.type=X\nt.plugin.module=libm.so.6\n"));
}
