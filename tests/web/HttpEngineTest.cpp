// HTTP over a pair of sockets, without a recorder.
#include "http/HttpEngine.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>
#include <thread>

#include "api/CodecText.h"

namespace {

using namespace calvane_web;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

/// What the engine answers to these bytes.
std::string Exchange(const Handler& handler, std::string received, bool* stays = nullptr) {
    std::array<int, 2> ends{};
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data());
    fcntl(ends[1], F_SETFL, 0);
    std::string answer;
    std::thread client([&] {
        std::array<char, 4096> bytes{};
        for (ssize_t count = 0; (count = read(ends[1], bytes.data(), bytes.size())) > 0;) {
            answer.append(bytes.data(), static_cast<std::size_t>(count));
        }
    });
    {
        HttpEngine engine(handler, {"/post"});
        Connection connection(ends[0], nullptr);
        const bool used = engine.Serve(connection, received);
        if (stays != nullptr) {
            *stays = used;
        }
    }
    client.join();
    close(ends[1]);
    return answer;
}

TEST(HttpEngineTest, ABodyThatFailsOnTheWayIsCutOff) {
    const auto answer = [](bool fails) {
        return Exchange(
            [fails](const Request&) {
                Reply reply;
                reply.type = "video/mp4";
                reply.write = [fails](IBodySink& sink) {
                    sink.Write("first");
                    if (fails) {
                        throw std::runtime_error("the card is gone");
                    }
                };
                return reply;
            },
            "GET / HTTP/1.1\r\nHost: a\r\n\r\n");
    };
    EXPECT_THAT(answer(false), EndsWith("\r\n5\r\nfirst\r\n0\r\n\r\n"));
    EXPECT_THAT(answer(true), EndsWith("\r\n5\r\nfirst\r\n")); // A client sees that the end is missing.
}

TEST(HttpEngineTest, AnswersEveryRequestThatCameAtOnce) {
    const Handler handler = [](const Request& request) {
        if (request.path == "/throw") {
            throw std::runtime_error("secret");
        }
        Reply reply;
        reply.type = "text/plain";
        reply.body = request.path + "?" + request.query + "#" + request.body + ";";
        return reply;
    };
    bool stays = false;
    const std::string answer =
        Exchange(handler,
                 "GET /a?b=%20 HTTP/1.1\r\n\r\nPOST /post HTTP/1.1\r\nContent-Type: application/json\r\n"
                 "Content-Length: 2\r\n\r\n{}GET /throw HTTP/1.1\r\n\r\nGET /half",
                 &stays);
    EXPECT_TRUE(stays);
    EXPECT_THAT(answer, HasSubstr("\r\n\r\n/a?b=%20#;HTTP/1.1 200 OK"));
    EXPECT_THAT(answer, HasSubstr("\r\n\r\n/post?#{};HTTP/1.1 500 "));
    EXPECT_THAT(answer, Not(HasSubstr("secret")));
}

TEST(HttpEngineTest, LogsAreNotWrittenByClients) {
    EXPECT_EQ(ForLog("/a\n\x1b[2J\"\\\xff"), "/a??[2J???");
    EXPECT_EQ(ForLog(std::string(1000, 'a')).size(), 100U);
}

std::string TextOf(AVCodecID codec, std::vector<std::uint8_t> header) {
    AVCodecParameters parameters{};
    parameters.codec_id = codec;
    parameters.extradata = header.data();
    parameters.extradata_size = static_cast<int>(header.size());
    return CodecText(parameters);
}

TEST(CodecTextTest, TellsProfileAndLevel) {
    // The examples of RFC 6381 and of ISO/IEC 14496-15, annex E.
    EXPECT_EQ(TextOf(AV_CODEC_ID_H264, {1, 0x42, 0xE0, 0x1E, 0xFF}), "avc1.42e01e");
    EXPECT_EQ(TextOf(AV_CODEC_ID_H264, {0, 0, 0, 1, 0x67, 0x64, 0, 0x1F, 0xAC}), "avc1.64001f");
    EXPECT_EQ(TextOf(AV_CODEC_ID_HEVC, {1, 0x01, 0x60, 0, 0, 0, 0xB0, 0, 0, 0, 0, 0, 93}), "hev1.1.6.L93.B0");
    EXPECT_EQ(TextOf(AV_CODEC_ID_AAC, {0x12, 0x10}), "mp4a.40.2");
    for (const std::vector<std::uint8_t>& broken :
         {std::vector<std::uint8_t>{}, {1}, {0, 0, 1}, {0, 0, 1, 0x67, 1, 2}}) {
        EXPECT_EQ(TextOf(AV_CODEC_ID_H264, broken), "");
        EXPECT_EQ(TextOf(AV_CODEC_ID_HEVC, broken), "");
    }
    EXPECT_EQ(TextOf(AV_CODEC_ID_MJPEG, {}), "");
}

} // namespace
