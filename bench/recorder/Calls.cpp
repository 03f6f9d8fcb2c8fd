// Round trips of calls to the recorder's service, beside calls of the same size that are answered at once.

#include <sdbus-c++/sdbus-c++.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <tuple>

#include "Measurements.h"

namespace {

constexpr const char* kInterface = "com.drenn.RecordingInformation1";

using Word = std::uint32_t;
using Span = std::tuple<Word, Word, Word, Word>;
using State = std::tuple<std::uint8_t, std::uint8_t, std::uint8_t, std::uint8_t>;

class PlainService {
public:
    PlainService() : connection_(sdbus::createSessionBusConnection("com.drenn.plain")) {
        object_ = sdbus::createObject(*connection_, "/com/drenn/plain");
        object_->registerMethod("getRecordingSummary").onInterface(kInterface).implementedAs([] {
            return Span(1, 2, 3, 4);
        });
        object_->registerMethod("getRecordingState").onInterface(kInterface).implementedAs([](Word, Word) {
            return State(1, 1, 1, 1);
        });
        object_->finishRegistration();
        connection_->enterEventLoopAsync();
    }
    ~PlainService() { connection_->leaveEventLoop(); }
    PlainService(const PlainService&) = delete;
    PlainService& operator=(const PlainService&) = delete;

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IObject> object_;
};

class Client {
public:
    explicit Client(const std::string& service)
        : connection_(sdbus::createSessionBusConnection()),
          proxy_(sdbus::createProxy(*connection_, "com.drenn." + service, "/com/drenn/" + service)) {}

    Span Summary() {
        Span answer;
        proxy_->callMethod("getRecordingSummary").onInterface(kInterface).storeResultsTo(answer);
        return answer;
    }
    State StateAt(std::int64_t microseconds) {
        State answer;
        proxy_->callMethod("getRecordingState")
            .onInterface(kInterface)
            .withArguments(static_cast<Word>(microseconds / 1000000),
                           static_cast<Word>(microseconds % 1000000))
            .storeResultsTo(answer);
        return answer;
    }

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

double TimeOf(const std::function<void()>& call) {
    const auto begin = Clock::now();
    call();
    return SecondsSince(begin);
}

} // namespace

void MeasureCalls(const std::string& card, std::uint32_t count) {
    const Recorder recorder(card);
    const PlainService service;
    Client ours("recording_information");
    Client plain("plain");
    const Span span = ours.Summary();
    const std::int64_t first = std::int64_t{std::get<0>(span)} * 1000000 + std::get<1>(span);
    const std::int64_t last = std::int64_t{std::get<2>(span)} * 1000000 + std::get<3>(span);
    if (last <= first) {
        throw std::runtime_error(card + " has no records");
    }
    std::vector<double> summary;
    std::vector<double> plainSummary;
    std::vector<double> state;
    std::vector<double> plainState;
    std::uint32_t recorded = 0;
    for (const std::int64_t time : RandomTimes(last - first, count)) {
        summary.push_back(TimeOf([&] { ours.Summary(); }));
        plainSummary.push_back(TimeOf([&] { plain.Summary(); }));
        state.push_back(TimeOf([&] { recorded += std::get<0>(ours.StateAt(first + time)); }));
        plainState.push_back(TimeOf([&] { plain.StateAt(first + time); }));
    }
    // Of each three and a half hours the cards have an hour without data.
    constexpr std::int64_t kWithGap = 4 * 3600 * std::int64_t{1000000};
    if (recorded < count / 2 || (recorded == count && last - first > kWithGap)) {
        throw std::runtime_error("getRecordingState told of data at " + std::to_string(recorded) +
                                 " times of " + std::to_string(count));
    }
    std::printf("{\"summary\": %.9f, \"plain summary\": %.9f, \"state\": %.9f, \"plain state\": %.9f}\n",
                MedianOf(summary), MedianOf(plainSummary), MedianOf(state), MedianOf(plainState));
}

void MeasureAsking(const std::string& card, std::uint32_t count, const std::string& name) {
    const Recorder recorder(card);
    const PlainService service;
    Client asked(name);
    const Span span = Client("recording_information").Summary();
    const std::int64_t first = std::int64_t{std::get<0>(span)} * 1000000 + std::get<1>(span);
    const std::int64_t last = std::int64_t{std::get<2>(span)} * 1000000 + std::get<3>(span);
    for (const std::int64_t time : RandomTimes(last - first, count)) {
        asked.StateAt(first + time);
    }
    std::printf("{}\n");
}
