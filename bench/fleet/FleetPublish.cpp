// Publishes so many records of sound with one size into the stream of a device, and prints how many seconds that took and how many
// of processors: by the C client's own asynchronous publishing, without or with the conditions that the uplink's link sets, or through
// that link.
// Usage: bench_fleet_publish client|conditions|link SERVER DEVICE MESSAGES BYTES

#include <nats/nats.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "Link.h"
#include "fleet/DeviceStream.h"

namespace {

using calvane_fleet::Check;
using calvane_fleet::MessageHead;
using calvane_fleet::NatsOptions;
using calvane_uplink::Link;

constexpr std::int64_t kBegin = 1'795'000'000'000'000;
constexpr std::int64_t kInterval = 20'000;
constexpr const char* kInfo = "Codec\npcm_alaw\nNumChannels\n1\nSampleFreq\n8000\nTimeBase\n1/8000\n";

MessageHead HeadOf(int number) {
    MessageHead head;
    head.time = kBegin + number * kInterval;
    head.number = static_cast<std::uint64_t>(number);
    head.flags = 1;
    head.info = 2;
    return head;
}

/// As long as those of the link.
std::string IdOf(int number) {
    return "0123456789012345678901." + std::to_string(number);
}

void SendByLink(const NatsOptions& options, const std::string& device, int count,
                const std::vector<char>& data) {
    calvane_fleet::NatsConnection connection(options);
    calvane_fleet::DeviceStream stream(connection, device);
    calvane_uplink::LinkFigures figures;
    Link link(connection, stream.GetState().lastSequence, -1, figures);
    const std::string subject = "calvane." + device + ".audio.1";
    MessageHead head;
    head.kind = calvane_fleet::MessageKind::Begin;
    head.time = kBegin;
    link.Send(subject, head, nullptr, 0);
    head.kind = calvane_fleet::MessageKind::Info;
    link.Send("calvane." + device + ".audio.info", head, kInfo, std::strlen(kInfo));
    for (int number = 1; number <= count; ++number) {
        link.Send(subject, HeadOf(number), data.data(), data.size());
    }
    link.WaitUntilStored();
}

void SendByClient(const NatsOptions& options, const std::string& device, int count,
                  const std::vector<char>& data, bool hasConditions) {
    natsConnection* connection = nullptr;
    Check(natsConnection_ConnectTo(&connection, options.servers[0].c_str()), "connect");
    jsCtx* context = nullptr;
    jsOptions defaults;
    jsOptions_Init(&defaults);
    defaults.PublishAsync.MaxPending = 1024;
    defaults.PublishAsync.StallWait = 30000;
    Check(natsConnection_JetStream(&context, connection, &defaults), "JetStream");
    const std::string subject = "calvane." + device + ".audio.1";
    for (int number = 1; number <= count; ++number) {
        natsMsg* message = nullptr;
        Check(natsMsg_Create(&message, subject.c_str(), nullptr, data.data(), static_cast<int>(data.size())),
              "create");
        natsMsgHeader_Set(message, calvane_fleet::kHeaderName, calvane_fleet::ToText(HeadOf(number)).c_str());
        if (hasConditions) {
            natsMsgHeader_Set(message, "Nats-Expected-Last-Sequence", std::to_string(number - 1).c_str());
            natsMsgHeader_Set(message, "Nats-Msg-Id", IdOf(number).c_str());
            if (number > 1) {
                natsMsgHeader_Set(message, "Nats-Expected-Last-Msg-Id", IdOf(number - 1).c_str());
            }
        }
        Check(js_PublishMsgAsync(context, &message, nullptr), "publish");
    }
    Check(js_PublishAsyncComplete(context, nullptr), "complete");
    jsCtx_Destroy(context);
    natsConnection_Destroy(connection);
}

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr,
                     "usage: bench_fleet_publish client|conditions|link SERVER DEVICE MESSAGES BYTES\n");
        return 2;
    }
    try {
        NatsOptions options;
        options.servers = {argv[2]};
        const int count = std::stoi(argv[4]);
        const std::vector<char> data(static_cast<std::size_t>(std::stoul(argv[5])), 'x');
        const auto begin = std::chrono::steady_clock::now();
        const bool hasConditions = std::strcmp(argv[1], "conditions") == 0;
        std::strcmp(argv[1], "link") == 0 ? SendByLink(options, argv[3], count, data)
                                          : SendByClient(options, argv[3], count, data, hasConditions);
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
        std::printf("%.6f %.6f\n", passed.count(), CpuSeconds());
        return 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "bench_fleet_publish: %s\n", problem.what());
        return 1;
    }
}
