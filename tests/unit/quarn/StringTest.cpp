#include <gtest/gtest.h>

#include <climits>
#include <locale>

#include "quarn/core/StringBuilder.h"
#include "quarn/core/StringUtil.h"

namespace quarn::core {
namespace {

using Pieces = std::vector<std::string>;

/// Groups digits by dots, so that a number written by the rules of the locale shows.
class GroupingLocale {
public:
    GroupingLocale() : previous_(std::locale::global(std::locale(std::locale(), new Dots))) {}
    ~GroupingLocale() { std::locale::global(previous_); }

private:
    struct Dots : std::numpunct<char> {
        std::string do_grouping() const override { return "\3"; }
        char do_thousands_sep() const override { return '.'; }
    };
    const std::locale previous_;
};

TEST(StringBuilder, JoinsTextsAndNumbers) {
    const GroupingLocale locale;
    StringBuilder builder(std::string("a"));
    const char* const none = nullptr;
    builder << ": " << none << std::string("b\0c", 3) << ' ' << INT_MIN << ' ' << UINT_MAX << ' ' << -1234L
            << ' ' << 1234UL << ' ' << LLONG_MIN << ' ' << ULLONG_MAX;
    EXPECT_EQ(builder.ToString(), std::string("a: b\0c", 6) +
                                      " -2147483648 4294967295 -1234 1234 -9223372036854775808 "
                                      "18446744073709551615");
}

TEST(StringUtil, SplitsAtEverySeparatorAndTrims) {
    EXPECT_EQ(StringUtil::Split("", ','), (Pieces{""}));
    EXPECT_EQ(StringUtil::Split(",", ','), (Pieces{"", ""}));
    EXPECT_EQ(StringUtil::Split("\ta b , c,,", ','), (Pieces{"a b", "c", "", ""}));
    EXPECT_EQ(StringUtil::Trim(" \t "), "");
    EXPECT_EQ(StringUtil::Trim("\t a\tb \n"), "a\tb \n");
}

TEST(StringUtil, ComparesAndLowers) {
    EXPECT_TRUE(StringUtil::StartsWith("t.pipeline.next.video", "t.pipeline.next."));
    EXPECT_TRUE(StringUtil::StartsWith("a", ""));
    EXPECT_FALSE(StringUtil::StartsWith("t.", "t.x"));
    EXPECT_FALSE(StringUtil::StartsWith("at.", "t."));
    EXPECT_EQ(StringUtil::ToLower("AZ@[az\xC3\x84"), "az@[az\xC3\x84");
    EXPECT_STREQ(StringUtil::ToCStr("", "??"), "??");
    EXPECT_STREQ(StringUtil::ToCStr("x", "??"), "x");
}

TEST(StringUtil, ParsesWholeNumbersInRangeOnly) {
    unsigned int size = 7;
    for (const char* bad : {"", "4294967296", "-1", "+1", " 1", "1 ", "0x10", "1.0", "abc"}) {
        EXPECT_FALSE(StringUtil::TryParse(bad, size)) << bad;
    }
    EXPECT_EQ(size, 7U);
    EXPECT_TRUE(StringUtil::TryParse("4294967295", size));
    EXPECT_EQ(size, UINT_MAX);
    signed char priority = 7;
    for (const char* bad : {"", "128", "-129", "+1", "1a", "a", "--1", "-"}) {
        EXPECT_FALSE(StringUtil::TryParse(bad, priority)) << bad;
    }
    EXPECT_EQ(priority, 7);
    EXPECT_TRUE(StringUtil::TryParse("-128", priority));
    EXPECT_EQ(priority, -128);
}

} // namespace
} // namespace quarn::core
