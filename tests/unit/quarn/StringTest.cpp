#include <gtest/gtest.h>

#include <climits>
#include <locale>

#include "quarn/core/StringBuilder.h"
#include "quarn/core/StringUtil.h"

namespace quarn::core {
namespace {

/// Groups digits by dots, so that a number written by the rules of the locale shows.
struct Dots : std::numpunct<char> {
    std::string do_grouping() const override { return "\3"; }
    char do_thousands_sep() const override { return '.'; }
};

TEST(StringBuilder, JoinsTextsAndNumbersWhateverTheLocale) {
    const std::locale before = std::locale::global(std::locale(std::locale(), new Dots));
    StringBuilder builder(std::string("a"));
    const char* const none = nullptr;
    builder << ": " << none << std::string("b\0c", 3) << ' ' << INT_MIN << ' ' << 1234UL << ' ' << ULLONG_MAX;
    std::locale::global(before);
    EXPECT_EQ(builder.ToString(), std::string("a: b\0c", 6) + " -2147483648 1234 18446744073709551615");
}

template <typename Number>
void ExpectRange(const std::vector<std::string>& bad, const std::string& good, Number value) {
    Number number = 7;
    for (const std::string& text : bad) {
        EXPECT_FALSE(StringUtil::TryParse(text, number)) << text;
    }
    EXPECT_EQ(number, 7);
    EXPECT_TRUE(StringUtil::TryParse(good, number));
    EXPECT_EQ(number, value);
}

TEST(StringUtil, ParsesWholeNumbersInRangeOnly) {
    ExpectRange<unsigned int>({"", "4294967296", "-1", "+1", " 1", "1 ", "0x10"}, "4294967295", UINT_MAX);
    ExpectRange<signed char>({"", "128", "-129", "+1", "1a", "--1", "-"}, "-128", -128);
}

} // namespace
} // namespace quarn::core
