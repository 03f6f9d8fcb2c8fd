// What reads the bytes of clients: queries and the heads of requests.
#include <gmock/gmock.h>

#include <stdexcept>

#include "api/Query.h"
#include "http/RequestHead.h"
#include "support/ThrownText.h"

namespace {

using namespace calvane_web;
using testing::HasSubstr;

TEST(QueryTest, DecodesAndHandsOutEachParameterOnce) {
    Query query("at=2026-01-01T10%3a00%3A00%2B02:00&name=a+b%C3%A9&n=-3");
    EXPECT_EQ(query.TakeTime("at", "now", 0), 1'767'254'400'000'000);
    EXPECT_EQ(query.Take("name"), "a b\u00e9");
    EXPECT_EQ(query.Take("name"), std::nullopt);
    EXPECT_THROW(query.RequireAllTaken(), std::invalid_argument);
    EXPECT_EQ(query.TakeNumber("n", -3, 3, 0), -3);
    EXPECT_EQ(query.TakeNumber("n", -3, 3, 1), 1);
    query.RequireAllTaken();
}

TEST(QueryTest, RefusesWhatIsNotPlainText) {
    for (const char* const bad :
         {"a=%", "a=%1", "a=%1g", "a=%00", "a=\x1b", "a=%7f", "a=%ff", "a=%c0%80", "a=%e0%80%80",
          "a=%ed%a0%80", "a=%f4%90%80%80", "a=%f0%9f%98", "a=%c3", "a", "a=", "=a", "a=1&a=1"}) {
        EXPECT_THROW(Query{bad}, std::invalid_argument) << bad;
    }
    EXPECT_NO_THROW(Query{"a=%f0%9f%98%80&b=%ed%9f%bf&c=%f4%8f%bf%bf"}); // The last ones that are.
    std::string many;
    for (int i = 0; i != 17; ++i) {
        many += "p" + std::to_string(i) + "=1&";
    }
    EXPECT_THROW(Query{many}, std::invalid_argument);
}

TEST(QueryTest, NumbersHaveLimitsThatTheErrorNames) {
    for (const char* const bad : {"0", "11", "1.5", "1e1", "+2", "99999999999999999999", "2 "}) {
        Query query("n=" + std::string(bad));
        const std::string text =
            ThrownText<std::invalid_argument>([&query] { query.TakeNumber("n", 1, 10, 5); });
        EXPECT_THAT(text, testing::AllOf(HasSubstr("n: "), HasSubstr("from 1 to 10"))) << bad;
    }
}

TEST(RequestHeadTest, KeepsWhatIsUsed) {
    const std::string head =
        "GET / HTTP/1.1\r\nHost:  a \r\nRange: bytes=0-,0-,0-\r\nX-Forwarded-For: 1.2.3.4\r\nCookie: "
        "x\r\n\r\n";
    EXPECT_EQ(FindHeadEnd(head + "rest"), head.size());
    EXPECT_EQ(FindHeadEnd(head.substr(0, head.size() - 1)), std::nullopt);
    EXPECT_EQ(FilterHead(head), "GET / HTTP/1.1\r\nhost: a\r\ncookie: x\r\n\r\n");
}

TEST(RequestHeadTest, RefusesWhatTwoReadersCouldTakeDifferently) {
    for (const char* const bad :
         {"Host: a\r\nHost: b", "Content-Length: 1\r\ncontent-length: 1", "Transfer-Encoding: chunked",
          "Host: a\r\n folded", "Host : a", ": a", "Host", "Host: a\nX: b", "Host: a\rb"}) {
        EXPECT_THROW(FilterHead("GET / HTTP/1.1\r\n" + std::string(bad) + "\r\n\r\n"), std::invalid_argument)
            << bad;
    }
}

TEST(RequestHeadTest, ARequestIsWholeWithItsBody) {
    const std::string head = "POST /x HTTP/1.1\r\nContent-Length: 3\r\n\r\n";
    EXPECT_FALSE(IsWhole(""));
    EXPECT_FALSE(IsWhole(head.substr(0, head.size() - 1)));
    EXPECT_FALSE(IsWhole(head + "ab"));
    EXPECT_TRUE(IsWhole(head + "abc"));
    // What will never be one must not be waited for.
    EXPECT_TRUE(IsWhole("POST /x HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n"));
    EXPECT_TRUE(IsWhole("POST /x HTTP/1.1\r\nContent-Length: 3x\r\n\r\n"));
    EXPECT_TRUE(IsWhole("POST /x HTTP/1.1\r\nContent-Length: 4097\r\n\r\n"));
    EXPECT_FALSE(IsWhole(std::string(kLongestHead, 'a')));
    EXPECT_TRUE(IsWhole(std::string(kLongestHead + 1, 'a')));
}

} // namespace
