#include <climits>

#include "calvane/config/DescriptionCheck.h"
#include "calvane/config/IniPluginConfig.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;

namespace {

Texts FindingsOf(const std::string& text) {
    Texts lines;
    for (const DescriptionFinding& finding : CheckDescription(IniFile::FromText(text, "d.ini"))) {
        lines.push_back(std::to_string(finding.line) + (finding.isError ? " error [" : " warning [") +
                        finding.group + "] " + finding.key + ": " + finding.text);
    }
    return lines;
}

} // namespace

TEST(IniPluginConfig, ReadsSettingsAndWarnsAboutThoseNobodyRead) {
    const IniFile ini = IniFile::FromText(
        "[p]\nt.plugin.type=T\nt.custom=1\nzeta=1\nnumber=12abc\nword=abc\nhuge=99999999999\nalpha=2\n");
    const LogCapture log;
    const IniPluginConfig config(&ini, "p");
    EXPECT_EQ(12, config.GetIntOrDefault("number", 5));
    EXPECT_EQ(0, config.GetIntOrDefault("word", 5));
    EXPECT_EQ(INT_MAX, config.GetIntOrDefault("huge", 5));
    EXPECT_TRUE(log.GetLines().empty());
    EXPECT_EQ(5, config.GetIntOrDefault("absent", 5));
    EXPECT_TRUE(log.Contains("p: Using default value (5) for setting absent"));
    config.LogUnusedSettings();
    ASSERT_EQ(3U, log.GetLines().size());
    EXPECT_EQ("p: Setting alpha was never used.", log.GetLines()[1].text);
    EXPECT_EQ("p: Setting zeta was never used.", log.GetLines()[2].text);
    EXPECT_EQ("Missing configuration group for plugin q", ThrownText([&] { IniPluginConfig(&ini, "q"); }));
}

TEST(DescriptionCheck, ReportsAllThatIsWrongInTheOrderOfLines) {
    const Texts findings = FindingsOf(
        "[calvane]\nt.pipelines = one,two,,one,gone\n"                                            // 1
        "[one]\nt.pipeline.heed = a\n"                                                            // 3
        "[two]\nt.pipeline.head = a\nthread.stack.bytes = -1\nthread.priority = 128\n"            // 5
        "[a]\nt.plugin.type = FileSorce\nt.pipeline.next = b, nowhere\nt.pipeline.next.out = c\n" // 9
        "[b]\nt.plugin.type = X\nt.plugin.module = /no/such.so\n"                                 // 13
        "[c]\nt.pipeline.next = d\n"                                                              // 16
        "[d]\nt.plugin.type = QueuePlugin\nt.pipeline.next.out = c\n"                             // 18
        "[left-over]\n");                                                                         // 21
    const Texts expected{
        "2 error [calvane] t.pipelines: A name is missing between the commas of \"one,two,,one,gone\"",
        "2 error [calvane] t.pipelines: Pipeline one is named twice",
        "2 error [calvane] t.pipelines: Missing configuration group for pipeline gone (did you mean "
        "\"one\"?)",
        "3 error [one] t.pipeline.head: Missing t.pipeline.head setting in one group",
        "4 warning [one] t.pipeline.heed: Setting t.pipeline.heed is unknown (did you mean "
        "\"t.pipeline.head\"?)",
        "7 error [two] thread.stack.bytes: Invalid value of \"-1\" for setting thread.stack.bytes in "
        "pipeline two",
        "8 error [two] thread.priority: Invalid value of \"128\" for setting thread.priority in pipeline two",
        "10 error [a] t.plugin.type: No registered plugin with type FileSorce (did you mean \"FileSource\"?)",
        "11 error [a] t.pipeline.next: Missing configuration group for plugin nowhere",
        "15 error [b] t.plugin.module: Module \"/no/such.so\" cannot be found: No such file or directory",
        "16 error [c] t.plugin.type: Missing t.plugin.type setting for plugin c",
        "20 error [d] t.pipeline.next.out: Plugin c is its own successor: c -> d -> c",
        "21 warning [left-over] : Nothing refers to this group"};
    EXPECT_EQ(expected, findings);
}

TEST(DescriptionCheck, SeesWhatIsMissingAltogetherAndHeadsThatAreShared) {
    EXPECT_EQ((Texts{"1 error [calvane] t.pipelines: Missing t.pipelines setting in calvane group"}),
              FindingsOf("[calvane]\n"));
    EXPECT_EQ(
        (Texts{"6 warning [q] t.pipeline.head: Plugin a also heads pipeline p: two threads would drive it"}),
        FindingsOf("[calvane]\nt.pipelines=p,q\n[p]\nt.pipeline.head=a\n[q]\nt.pipeline.head=a\n"
                   "[a]\nt.plugin.type=FileSource\n"));
}
