#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <memory>
#include <string>
#include <tuple>

#include "drenn/api/DrennApiRecordingInformationTargetRun.h"

namespace {

using Span = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t>;

constexpr const char* kInterface = "com.drenn.RecordingInformation1";

class Information : public drenn::api::DrennApiRecordingInformationTargetImplBase {
public:
    Information() : DrennApiRecordingInformationTargetImplBase(nullptr) {}
    unsigned int getRecordingSummary(unsigned int* firstSec, unsigned int* firstUsec, unsigned int* lastSec,
                                     unsigned int* lastUsec) override {
        *firstSec = 1, *firstUsec = 2, *lastSec = 3, *lastUsec = 4;
        return 0;
    }
    unsigned int getTrackSummary(unsigned int, unsigned int*, unsigned int*, unsigned int*,
                                 unsigned int*) override {
        return 1;
    }
    unsigned int getRecordingState(unsigned int, unsigned int, unsigned char*, unsigned char*, unsigned char*,
                                   unsigned char*) override {
        return 1;
    }
    unsigned int getAudioAttributes(unsigned int, unsigned int, unsigned int*, unsigned int*, double*,
                                    unsigned int*, unsigned int*, unsigned int*, unsigned int*) override {
        return 1;
    }
    unsigned int getVideoAttributes(unsigned int, unsigned int, unsigned int*, unsigned int*, unsigned int*,
                                    unsigned int*, double*, unsigned int*, unsigned int*, unsigned int*,
                                    unsigned int*) override {
        return 1;
    }
};

/// The same operation as plain sdbus-c++ serves it.
class PlainService {
public:
    PlainService() : connection_(sdbus::createSessionBusConnection("com.drenn.plain")) {
        object_ = sdbus::createObject(*connection_, "/com/drenn/plain");
        object_->registerMethod("getRecordingSummary").onInterface(kInterface).implementedAs([] {
            return Span(1, 2, 3, 4);
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

void Call(benchmark::State& state, const std::string& service) {
    const auto connection = sdbus::createSessionBusConnection();
    const auto proxy = sdbus::createProxy(*connection, "com.drenn." + service, "/com/drenn/" + service);
    Span span;
    for (auto _ : state) {
        proxy->callMethod("getRecordingSummary").onInterface(kInterface).storeResultsTo(span);
        if (std::get<3>(span) != 4) {
            state.SkipWithError("a wrong answer");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void CallService(benchmark::State& state) {
    static drenn::api::DrennApiRecordingInformationTargetRun service("recording_information", nullptr,
                                                                     std::make_shared<Information>());
    Call(state, "recording_information");
}
BENCHMARK(CallService)->UseRealTime()->Threads(1)->Threads(8);

void CallPlainSdbus(benchmark::State& state) {
    static const PlainService service;
    Call(state, "plain");
}
BENCHMARK(CallPlainSdbus)->UseRealTime()->Threads(1)->Threads(8);

} // namespace
