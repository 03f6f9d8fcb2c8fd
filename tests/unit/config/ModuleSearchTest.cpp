#include "calvane/config/ModuleSearch.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/TempFolder.h"
#include "support/ThrownText.h"

using namespace quarn::calvane;
using testing::EndsWith;

namespace {

class ModuleSearch : public testing::Test {
protected:
    void SetUp() override { unsetenv(kPluginPathVariable); }
    void TearDown() override { unsetenv(kPluginPathVariable); }
    static void SetPath(const std::string& folders) { setenv(kPluginPathVariable, folders.c_str(), 1); }
    static std::string Refusal(const std::string& module) {
        return ThrownText([&module] { FindModule(module); });
    }

    const TempFolder first;
    const TempFolder second;
};

} // namespace

TEST_F(ModuleSearch, LooksInTheListedFoldersAndThenBesideTheLibrary) {
    const std::string file = second.Write("m.so", "");
    EXPECT_EQ(file, FindModule(file));
    EXPECT_EQ("Module \"m.so\" cannot be found in " CALVANE_LIB_DIR "/calvane/plugins", Refusal("m.so"));
    SetPath(":" + first.Path() + ":" + file + ":" + second.Path());
    EXPECT_EQ(file, FindModule("m.so"));
    EXPECT_EQ("Module \"n.so\" cannot be found in " + first.Path() + ", " + file + " (Not a directory), " +
                  second.Path() + ", " CALVANE_LIB_DIR "/calvane/plugins",
              Refusal("n.so"));
    const std::string earlier = first.Write("m.so", "");
    EXPECT_EQ(earlier, FindModule("m.so"));
    EXPECT_EQ("Module \"/no/m.so\" cannot be found: No such file or directory", Refusal("/no/m.so"));
}

TEST_F(ModuleSearch, RefusesWhatOthersMayChange) {
    const std::string file = first.Write("m.so", "");
    const std::string others = "may be written by others than its owner (mode ";
    SetPath(first.Path() + ":" + second.Path());
    second.Write("m.so", "");
    for (const auto& [mode, text] : {std::pair(0664, "0664)"), std::pair(0646, "0646)")}) {
        ASSERT_EQ(0, chmod(file.c_str(), static_cast<mode_t>(mode)));
        EXPECT_EQ("Module \"m.so\" is refused: " + file + " " + others + text, Refusal("m.so"));
    }
    ASSERT_EQ(0, chmod(file.c_str(), 0644));
    ASSERT_EQ(0, chmod(first.Path().c_str(), 0777));
    EXPECT_EQ("Module \"m.so\" is refused: " + first.Path() + " " + others + "0777)", Refusal("m.so"));
    const std::string link = second.Path("link.so");
    std::filesystem::create_symlink(file, link);
    EXPECT_THAT(Refusal("link.so"), EndsWith(others + "0777)")); // Where the file itself lies.
    ASSERT_EQ(0, chmod(first.Path().c_str(), 01777));
    EXPECT_EQ(file, FindModule("m.so"));
    EXPECT_EQ(link, FindModule("link.so"));
    EXPECT_THAT(Refusal(second.Path()), EndsWith("is not a regular file"));
}

TEST_F(ModuleSearch, RefusesFilesOfOtherUsers) {
    const std::string file = first.Write("m.so", "");
    if (chown(file.c_str(), 12345, static_cast<gid_t>(-1)) != 0) {
        GTEST_SKIP() << "only root may give files away";
    }
    EXPECT_EQ("Module \"" + file + "\" is refused: " + file +
                  " belongs to user 12345, who is neither root nor the user of this process",
              Refusal(file));
}
