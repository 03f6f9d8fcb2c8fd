#include <climits>
#include <set>

#include "calvane/config/DescriptionCheck.h"
#include "calvane/config/IniPluginConfig.h"
#include "calvane/config/PluginManager.h"
#include "calvane/config/PluginTypes.h"
#include "calvane/graph/SettingException.h"
#include "calvane/testing/SettingsRecorder.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;

namespace {

Texts FindingsOf(const std::string& text) {
    Texts lines;
    for (const DescriptionDiagnostic& finding : CheckDescription(IniFile::FromText(text, "d.ini"))) {
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
    EXPECT_EQ((Texts{"alpha", "zeta"}), config.GetUnusedKeys());
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
        "20 error [d] t.pipeline.next.out: Plugin d of type QueuePlugin has no output named out; it has one "
        "output, which has no name",
        "21 warning [left-over] : Nothing refers to this group"};
    EXPECT_EQ(expected, findings);
}

TEST(DescriptionCheck, SeesWhatIsMissingAltogether) {
    const std::string missing = " error [calvane] t.pipelines: Missing t.pipelines setting in calvane group";
    EXPECT_EQ((Texts{"1" + missing}), FindingsOf("[calvane]\n"));
    EXPECT_EQ((Texts{"2" + missing}), FindingsOf("[calvane]\nt.pipelines =\n"));
    EXPECT_EQ((Texts{"0 error [calvane] : Missing group [calvane]",
                     "1 warning [x] : Nothing refers to this group"}),
              FindingsOf("[x]\n"));
}

TEST(DescriptionCheck, HoldsSettingsAndConnectionsAgainstWhatTypesDeclare) {
    const std::string start = "[calvane]\nt.pipelines = p\n[p]\nt.pipeline.head = a\n"; // Lines 1 to 4.
    const std::string source = start + "[a]\nt.plugin.type = FileSource\nfilename = in\n";
    const std::map<std::string, std::string> mistakes{
        {source + "buffer.maxcuont = 7\n",
         "8 warning [a] buffer.maxcuont: Setting buffer.maxcuont is unknown (did you mean "
         "\"buffer.maxcount\"?)"},
        {source + "buffer.maxcount = 0\n",
         "8 error [a] buffer.maxcount: 0 is out of range: 1 to 2147483647 (buffers)"},
        {source + "buffer.blocksize.bytes = 1 MB\n",
         "8 error [a] buffer.blocksize.bytes: \"1 MB\" is not an integer (bytes)"},
        {source + "loop = yes\n", "8 error [a] loop: \"yes\" is neither 0 (off) nor 1 (on)"},
        {source + "buffer.blocksize.bytes = 65536\nbuffer.maxcount = 65536\n",
         "9 error [a] buffer.maxcount: The memory of all buffers must stay below 4 GiB"},
        {source + "buffer.blocksize.bytes = 1\nbuffer.maxcount = 67108864\n", // Each takes 64 bytes.
         "9 error [a] buffer.maxcount: The memory of all buffers must stay below 4 GiB"},
        {start + "[a]\nt.plugin.type = FileSource\nfilename =\n",
         "7 error [a] filename: Missing filename setting for plugin a"},
        {source + "t.pipeline.next.video = b\n[b]\nt.plugin.type = IdentityPlugin\n",
         "8 error [a] t.pipeline.next.video: Plugin a of type FileSource has no output named video; it has "
         "one "
         "output, which has no name"},
        {source + "t.pipeline.next = b\n[b]\nt.plugin.type = FileSource\nfilename = x\n",
         "8 error [a] t.pipeline.next: Plugin b of type FileSource has no input and cannot follow a"},
        {source + "t.pipeline.next = b\n[b]\nt.plugin.type = FileSink\nfilename = x\nt.pipeline.next = c\n"
                  "[c]\nt.plugin.type = IdentityPlugin\n",
         "12 error [b] t.pipeline.next: Plugin b of type FileSink has no output without a name; it has no "
         "output"},
        {start + "[a]\nt.plugin.type = FileSink\nfilename = x\nopenmode = trunc\n",
         "4 error [p] t.pipeline.head: Plugin a of type FileSink generates no buffers and cannot be a head, "
         "8 error [a] openmode: \"trunc\" is none of truncate, append"},
        {start + "[a]\nt.plugin.type = QueuePlugin\nqueue.lenght = 3\nqueue.length = 65536\n",
         "4 error [p] t.pipeline.head: Plugin a of type QueuePlugin generates no buffers and cannot be a "
         "head, "
         "7 warning [a] queue.lenght: Setting queue.lenght is unknown (did you mean \"queue.length\"?), "
         "8 error [a] queue.length: 65536 is out of range: 1 to 65535 (buffers)"},
        // A group that is a pipeline and its head at once, with the keys of both.
        {"[calvane]\nt.pipelines = a\n[a]\nt.pipeline.head = a\nthread.priority = 1\nt.plugin.type = "
         "FileSource\n"
         "filename = x\nloop = 1\n",
         ""},
        {source +
             "t.pipeline.next = b\n[b]\nt.plugin.type = StatsCollectorPlugin\nfilter.x = 1\nfiltre.x = 1\n",
         "12 warning [b] filtre.x: Setting filtre.x is unknown"}};
    for (const auto& [text, expected] : mistakes) {
        std::string findings;
        for (const std::string& finding : FindingsOf(text)) {
            findings += (findings.empty() ? "" : ", ") + finding;
        }
        EXPECT_EQ(expected, findings) << text;
    }
}

TEST(DescriptionCheck, RefusesSeveralThreadsInAPluginThatAllowsOne) {
    const std::string heads =
        "[calvane]\nt.pipelines=p,q\n[p]\nt.pipeline.head=a\n[q]\nt.pipeline.head=b\n"
        "[a]\nt.plugin.type=FileSource\nfilename=x\nt.pipeline.next=i\n" // Line 7.
        "[b]\nt.plugin.type=FileSource\nfilename=x\nt.pipeline.next=i\n" // Line 11.
        "[i]\nt.plugin.type=IdentityPlugin\nt.pipeline.next=s\n";        // Line 15.
    const std::string sink = "[s]\nt.plugin.type=FileSink\nfilename=y\n";
    EXPECT_EQ(
        (Texts{
            "18 error [s] : Several threads would call plugin s, which allows one: pipeline p, pipeline q; "
            "let them feed a QueuePlugin before it"}),
        FindingsOf(heads + sink));
    // Of those that follow one another the first is named, whatever its name.
    EXPECT_EQ(
        (Texts{
            "18 error [s] : Several threads would call plugin s, which allows one: pipeline p, pipeline q; "
            "let them feed a QueuePlugin before it"}),
        FindingsOf(heads + "[s]\nt.plugin.type=StatsCollectorPlugin\nt.pipeline.next=a1\n[a1]\n"
                           "t.plugin.type=FileSink\nfilename=y\n"));
    // Behind a queue it is one thread, unless another way leads around the queue.
    const std::string queue =
        "[s]\nt.plugin.type=QueuePlugin\nt.pipeline.next=t\n[t]\nt.plugin.type=FileSink\n"
        "filename=y\n";
    EXPECT_EQ(Texts(), FindingsOf(heads + queue));
    const std::string around = heads.substr(0, heads.size() - 2) + "s,t\n";
    EXPECT_EQ(
        (Texts{
            "21 error [t] : Several threads would call plugin t, which allows one: pipeline p, pipeline q, "
            "queue s; let them feed a QueuePlugin before it"}),
        FindingsOf(around + queue));
    EXPECT_EQ(
        (Texts{"7 error [a] : Several threads would call plugin a, which allows one: pipeline p, pipeline q; "
               "let them feed a QueuePlugin before it"}),
        FindingsOf("[calvane]\nt.pipelines=p,q\n[p]\nt.pipeline.head=a\n[q]\nt.pipeline.head=a\n"
                   "[a]\nt.plugin.type=FileSource\nfilename=x\n"));
}

TEST(PluginDeclaration, OfBuiltInTypesIsWhatTheirPluginsAskForAndAre) {
    PluginTypes types;
    for (const std::string type : {"FileSink", "FileSource", "IdentityPlugin", "OverwriteFileSink",
                                   "QueuePlugin", "StatsCollectorPlugin"}) {
        const PluginDeclaration* const declaration = types.FindDeclaration("", type);
        ASSERT_NE(nullptr, declaration) << type;
        const LogCapture log(quarn::core::LogLevel::Off);
        PluginManager plugins;
        testkit::SettingsRecorder settings("", type);
        for (int i = 0; i != 2; ++i) { // The second time with an answer to what is required.
            try {
                const PluginPtr plugin(plugins.CreatePlugin(settings));
                EXPECT_EQ(declaration->threading, plugin->GetThreading()) << type;
                EXPECT_EQ(declaration->outputs, plugin->GetOutputNames()) << type;
                EXPECT_EQ(!declaration->inputs.empty(), plugin->GetSink() != nullptr) << type;
            } catch (const SettingException& error) {
                settings.MarkRequired(error.GetKey());
                settings.AnswerRequired("/dev/null");
            }
        }
        std::set<std::string> declared;
        for (const SettingDeclaration& setting : declaration->settings) {
            if (setting.key.back() != '*') {
                declared.insert(setting.key + "=" + (setting.isRequired ? "required" : setting.defaultValue));
            }
        }
        std::set<std::string> asked;
        for (const auto& setting : settings.GetSettings()) {
            asked.insert(setting.key + "=" + (setting.isRequired ? "required" : setting.defaultValue));
        }
        EXPECT_EQ(declared, asked) << type;
    }
}

TEST(PluginDeclaration, IsRefusedWithTheLineThatIsWrong) {
    const std::string start = "[plugin]\nsummary = s\n[setting a]\nsummary = t\n";
    const std::map<std::string, std::string> wrong{
        {"", ":0: group plugin has no summary"},
        {"[plugin]\nsummary = s\ninput = default\n", ":3: unknown key input (did you mean \"inputs\"?)"},
        {"[plugin]\nsummary = s\nthreads = two\n", ":3: unknown word two"},
        {"[plugin]\nsummary = s\nlimit = a * b\n", ":3: expected KEY * KEY / UNIT <= NUMBER, TEXT"},
        {start + "kind = integer\ndefault = x\n", ":6: \"x\" is not an integer"},
        {start + "kind = integer\ndefault = 5\nrange = 6 to 7\n", ":6: 5 is out of range: 6 to 7"},
        {start + "[settings b]\n", ":5: unknown group settings b"}};
    for (const auto& [text, fault] : wrong) {
        EXPECT_EQ("Declaration of plugin type T" + fault,
                  ThrownText([declaration = text] { PluginDeclaration::Parse("T", declaration); }));
    }
}
