#include "quarn/core/IniFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "quarn/osa/Exception.h"

namespace quarn::core {
namespace {

using Names = std::vector<std::string>;

template <typename Action>
std::string ErrorOf(Action action) {
    try {
        action();
    } catch (const osa::Exception& failure) {
        return failure.what();
    }
    return "no exception";
}

TEST(IniFile, ReadsGroupsKeysAndValuesWithTheirLines) {
    const std::string longValue(100000, 'x');
    const IniFile file = IniFile::FromText(
        "\xEF\xBB\xBF; comment\r\n"
        " [ z group ] # comment\r\n"
        "\tb =  one = two ; no comment \t\r\n"
        "  # comment\r\n"
        "\r\n"
        "a=\"[q]\"\n"
        "B=\n"
        "[empty]\n"
        "[Z group]\n"
        "b=" +
        longValue);
    EXPECT_EQ(file.GetGroups(), (Names{"z group", "empty", "Z group"}));
    EXPECT_EQ(file["z group"],
              (IniFile::Group{{"B", ""}, {"a", "\"[q]\""}, {"b", "one = two ; no comment"}}));
    EXPECT_EQ(file.GetValue("Z group", "b"), longValue);
    EXPECT_TRUE(file.HasGroup("empty"));
    EXPECT_TRUE(file["empty"].empty());
    EXPECT_EQ(file.GetGroupLine("z group"), 2U);
    EXPECT_EQ(file.GetKeyLine("z group", "a"), 6U);
    EXPECT_EQ(file.GetKeyLine("Z group", "b"), 10U);
    EXPECT_EQ(file.GetFileName(), "<text>");
}

TEST(IniFile, AnswersForWhatIsAbsent) {
    const IniFile file = IniFile::FromText("\n[a]\nk=\n", "x%s.ini");
    EXPECT_TRUE(file.HasValue("a", "k"));
    EXPECT_FALSE(file.HasValue("a", "K"));
    EXPECT_FALSE(file.HasGroup("A"));
    EXPECT_FALSE(file.HasValue("A", "k"));
    EXPECT_TRUE(file["A"].empty());
    EXPECT_EQ(file.GetValueOrDefault("a", "K") + file.GetValueOrDefault("A", "k"), "");
    EXPECT_EQ(file.GetGroupLine("A") + file.GetKeyLine("A", "k") + file.GetKeyLine("a", "K"), 0U);
    EXPECT_EQ(ErrorOf([&] { file.GetValue("a", "K"); }), "x%s.ini:2: group \"a\" has no key \"K\"");
    EXPECT_EQ(ErrorOf([&] { file.GetValue("A", "k"); }),
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
        {std::string(";\0", 2), "f:1: NUL byte"},
    };
    for (const auto& [text, error] : cases) {
        EXPECT_EQ(ErrorOf([&text = text] { IniFile::FromText(text, "f"); }), error);
    }
}

TEST(IniFile, ReadsFilesAndNamesThoseItCannot) {
    const std::string path = testing::TempDir() + "IniFileTest." + std::to_string(getpid());
    std::ofstream(path, std::ios::binary) << "[a]\nk=" << std::string(5000, 'v') << "\nbad";
    EXPECT_EQ(ErrorOf([&] { IniFile{path}; }),
              path + ":3: neither a group nor a key with a value: \"bad\" in group \"a\"");
    std::ofstream(path, std::ios::binary | std::ios::app) << "=good";
    IniFile file{path};
    unlink(path.c_str());
    const IniFile copy = file;
    file = IniFile::FromText("");
    EXPECT_FALSE(file.HasGroup("a"));
    EXPECT_EQ(copy.GetValue("a", "bad"), "good");
    EXPECT_EQ(copy.GetValue("a", "k").size(), 5000U);
    EXPECT_EQ(copy.GetFileName(), path);

    EXPECT_EQ(ErrorOf([&] { IniFile{path}; }),
              "Cannot open INI file " + path + ": No such file or directory");
    EXPECT_EQ(ErrorOf([] { IniFile{"/tmp"}; }), "Cannot read INI file /tmp: Is a directory");
}

} // namespace
} // namespace quarn::core
