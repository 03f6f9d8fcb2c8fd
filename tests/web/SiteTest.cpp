// The rules that hold for all that can be asked for, without a recorder behind it.
#include "api/Site.h"

#include <gmock/gmock.h>

#include <future>
#include <stdexcept>
#include <string>

#include "http/Connection.h"

namespace {

using namespace calvane_web;
using testing::HasSubstr;

class Collected : public IBodySink {
public:
    using IBodySink::Write;
    void Write(const void* bytes, std::size_t length) override {
        text.append(static_cast<const char*>(bytes), length);
    }
    bool IsConnected() override { return true; }
    std::string text;
};

class SiteTest : public testing::Test {
protected:
    SiteTest() {
        site_.Add("/api/fails", [this](const Request&, Query&) -> Reply {
            fails_();
            return {};
        });
        site_.Add("/healthz", [](const Request&, Query&) { return Reply(); });
        site_.AddPost("/api/login", [](const Request&, Query&) { return Reply(); });
    }
    int StatusOf(const std::string& method, const std::string& path,
                 std::map<std::string, std::string> headers = {}) const {
        return site_.Handle({method, path, "", "", "10.0.0.1", std::move(headers)}).status;
    }
    template <typename Error>
    int StatusOfError(const Error& error) {
        fails_ = [error] { throw error; };
        return StatusOf("GET", "/api/fails");
    }

    bool isAllowed_ = true;
    std::function<void()> fails_ = [] {};
    PageFiles page_{DefaultPageFolder()};
    Site site_{{{}, [this](const Request&) { return isAllowed_; }}, page_};
};

TEST_F(SiteTest, ErrorsBecomeTheAnswersThatAreDescribed) {
    using calvane_recording::RecordingClient;
    EXPECT_EQ(StatusOfError(std::invalid_argument("at")), 400);
    EXPECT_EQ(StatusOfError(std::runtime_error("nothing there")), 404);
    EXPECT_EQ(StatusOfError(Busy("later")), 503);
    EXPECT_EQ(StatusOfError(RecordingClient::NoAnswer("bus")), 503);
    EXPECT_EQ(StatusOfError(RecordingClient::NotRunning("recorder")), 503);
    EXPECT_EQ(site_.Handle({"GET", "/api/fails", "", "", "", {}}).headers.count("Retry-After"), 1U);
    EXPECT_EQ(StatusOf("GET", "/api/login"), 405);
    EXPECT_EQ(StatusOf("POST", "/api/fails"), 405);
    EXPECT_EQ(StatusOf("HEAD", "/index.html"), 200);
    EXPECT_EQ(StatusOf("GET", "/../index.html"), 404);
    EXPECT_THAT(site_.Handle({"GET", "/a\"\n", "", "", "", {}}).body, HasSubstr("at /a??\""));
}

TEST_F(SiteTest, WithoutASessionOnlyThePageAndItsHealthAreOpen) {
    isAllowed_ = false;
    EXPECT_EQ(StatusOf("GET", "/api/fails"), 401);
    EXPECT_EQ(StatusOf("GET", "/"), 200);
    EXPECT_EQ(StatusOf("GET", "/healthz"), 200);
    EXPECT_EQ(StatusOf("POST", "/api/login"), 200);
}

TEST_F(SiteTest, WhatThePageLoadsNeverChangesAtItsAddress) {
    const auto get = [this](const std::string& path) { return site_.Handle({"GET", path, "", "", "", {}}); };
    const std::string index = get("/").body;
    const std::size_t at = index.find("v-");
    ASSERT_NE(at, std::string::npos);
    const std::string folder = "/" + index.substr(at, index.find('/', at) - at);
    const auto caching = [&](const std::string& path) {
        return get(path).headers.find("Cache-Control")->second;
    };
    EXPECT_THAT(caching(folder + "/main.js"), HasSubstr("immutable"));
    EXPECT_EQ(get(folder + "/main.js").body, get("/main.js").body);
    EXPECT_EQ(caching("/main.js"), "no-cache");
    EXPECT_EQ(caching("/"), "no-cache");
    EXPECT_EQ(get("/v-0000000000000000/main.js").status, 404);
    EXPECT_THAT(index, testing::Not(HasSubstr("\"v/")));
}

TEST_F(SiteTest, PagesOfOtherSitesLogNobodyInOrOut) {
    EXPECT_EQ(StatusOf("POST", "/api/login", {{"sec-fetch-site", "cross-site"}}), 403);
    EXPECT_EQ(StatusOf("POST", "/api/login", {{"sec-fetch-site", "same-site"}}), 403);
    EXPECT_EQ(StatusOf("POST", "/api/login", {{"sec-fetch-site", "same-origin"}}), 200);
}

TEST_F(SiteTest, AnAnswerEndsWithItsSession) {
    site_.Add("/api/stream", [this](const Request&, Query&) {
        Reply reply;
        reply.write = [this](IBodySink& sink) {
            sink.Write("before ");
            isAllowed_ = false;
            EXPECT_FALSE(sink.IsConnected());
            sink.Write("after");
        };
        return reply;
    });
    const Reply reply = site_.Handle({"GET", "/api/stream", "", "", "", {}});
    Collected sink;
    EXPECT_THROW(reply.write(sink), Disconnected);
    EXPECT_EQ(sink.text, "before ");
}

TEST(ClientPoolTest, NoClientHasAllThatThereIs) {
    ClientPool pool(3, 2);
    auto first = std::make_unique<ClientPool::Lease>(pool, "a");
    const ClientPool::Lease second(pool, "a");
    auto third = std::async(std::launch::async, [&pool] { const ClientPool::Lease lease(pool, "a"); });
    { const ClientPool::Lease other(pool, "b"); }
    EXPECT_EQ(third.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    first.reset();
    third.get();
    // Those that are nobody's are not counted; all together are.
    first = std::make_unique<ClientPool::Lease>(pool, "");
    const ClientPool::Lease nobodys(pool, "");
    auto last = std::async(std::launch::async, [&pool] { const ClientPool::Lease lease(pool, "b"); });
    EXPECT_EQ(last.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    first.reset();
    last.get();
}

} // namespace
