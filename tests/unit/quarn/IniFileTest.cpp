#include "quarn/core/IniFile.h"

#include <gtest/gtest.h>

#include "support/TempFolder.h"
#include "support/ThrownText.h"

using namespace quarn::core;

TEST(IniFile, ReadsGroupsKeysAndValuesWithTheirLines) {
    const std::string longValue(100000, 'x');
    const IniFile file = IniFile::FromText(
        "\xEF\xBB\xBF; comment\r\n [ z group ] # comment\r\n\tb =  one = two ; no comment \t\r\n"
        "  # comment\r\n\r\na=\"[q]\"\nB=\n[empty]\n[Z group]\n"
        "b=" +
        longValue);
    EXPECT_EQ(file.GetGroups(), (Texts{"z group", "empty", "Z group"}));
    EXPECT_EQ(file["z group"],
              (IniFile::Group{{"B", ""}, {"a", "\"[q]\""}, {"b", "one = two ; no comment"}}));
    EXPECT_EQ(file.GetValue("Z group", "b"), longValue);
    EXPECT_TRUE(file.HasGroup("empty") && file["empty"].empty());
    EXPECT_EQ(file.GetGroupLine("z group"), 2U);
    EXPECT_EQ(file.GetKeyLine("Z group", "b"), 10U);
}

TEST(IniFile, AnswersForWhatIsAbsent) {
    const IniFile file = IniFile::FromText("\n[a]\nk=\n", "x%s.ini");
    EXPECT_FALSE(file.HasValue("a", "K") || file.HasGroup("A") || file.HasValue("A", "k"));
    EXPECT_TRUE(file["A"].empty());
    EXPECT_EQ(file.GetValueOrDefault("a", "K") + file.GetValueOrDefault("A", "k"), "");
    EXPECT_EQ(file.GetGroupLine("A") + file.GetKeyLine("A", "k") + file.GetKeyLine("a", "K"), 0U);
    EXPECT_EQ(ThrownText([&] { file.GetValue("a", "K"); }), "x%s.ini:2: group \"a\" has no key \"K\"");
    EXPECT_EQ(ThrownText([&] { file.GetValue("A", "k"); }),
              "x%s.ini: no group \"A\", which should have the key \"k\"");
}

TEST(IniFile, NamesLineAndCulpritOfEveryError) {
    const struct {
        std::string text;
        std::string error;
    } cases[] = {
        {"[a]\n[b]\n\n[ a ]\n", "f:4: group \"a\" stands in line 1 already"},
        {"[a]\n\nk=1\r\nK=1\nk=2", "f:5: key \"k\" in group \"a\" stands in line 3 already"},
        {"# c\nk=v\n[a]", "f:2: key \"k\" stands before the first group"},
        {"garbage", "f:1: neither a group nor a key with a value: \"garbage\""},
        {"[a]\n" + std::string(70, 'g'),
         "f:2: neither a group nor a key with a value: \"" + std::string(60, 'g') + "...\" in group \"a\""},
        {"[a]\n = v", "f:2: value without a key in group \"a\""},
        {"[ ]", "f:1: group without a name"},
        {"[a]\n[b\nk=]", "f:2: no ] behind the name of group \"b\""},
        {"[a] b ; c", "f:1: unexpected text \"b ; c\" behind group \"a\""},
        {std::string("[a]\nk=\0", 7), "f:2: NUL byte in group \"a\""},
    };
    for (const auto& [text, error] : cases) {
        EXPECT_EQ(ThrownText([&text = text] { IniFile::FromText(text, "f"); }), error);
    }
}

TEST(IniFile, ReadsFilesAndNamesThoseItCannot) {
    const TempFolder folder;
    const std::string path = folder.Write("f", "[a]\nk=" + std::string(5000, 'v') + "\nbad");
    EXPECT_EQ(ThrownText([&] { IniFile{path}; }),
              path + ":3: neither a group nor a key with a value: \"bad\" in group \"a\"");
    EXPECT_EQ(ThrownText([&] { IniFile{path + "2"}; }),
              "Cannot open INI file " + path + "2: No such file or directory");
    EXPECT_EQ(ThrownText([] { IniFile{"/tmp"}; }), "Cannot read INI file /tmp: Is a directory");
}
