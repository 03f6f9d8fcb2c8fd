#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>

#include "bus/TestServices.h"
#include "quarn/core/LogCapture.h"
#include "quarn/msgbus/BusLink.h"
#include "quarn/msgbus/MsgBus.h"
#include "support/PrivateBus.h"
#include "support/Program.h"
#include "support/RunInThreads.h"
#include "support/ThrownText.h"
#include "support/WaitUntil.h"

namespace {

using drenn::api::CoverageInterval;
using drenn::api::DrennApiRecordingDataAccessTargetImplBase;
using drenn::api::DrennApiRecordingDataAccessTargetRun;
using drenn::api::DrennApiRecordingInformationTargetRun;
using drenn::api::HistoryEvent;
using drenn::api::PayloadRecord;
using drenn::api::ServiceCursor;
using drenn::api::ServiceTime;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

class FakeDataAccess : public DrennApiRecordingDataAccessTargetImplBase {
public:
    FakeDataAccess() : DrennApiRecordingDataAccessTargetImplBase(nullptr) {}

    unsigned int getFirstRecordingHistoryEventTime(unsigned int* sec, unsigned int* usec) override {
        *sec = 31, *usec = 32;
        return 0;
    }
    unsigned int getRecordingHistoryEvent(const ServiceCursor& from, HistoryEvent* event,
                                          ServiceCursor* next) override {
        *event = {from.time, 1, 1, 2};
        *next = {from.time, from.passed + 1};
        return 0;
    }
    unsigned int getMetadata(const ServiceCursor& from, const ServiceTime& to,
                             std::vector<PayloadRecord>* records, ServiceCursor* next,
                             unsigned char* more) override {
        *records = {{from.time, {'a', 'b'}}, {to, {}}};
        *next = {to, 1};
        *more = 1;
        return 0;
    }
    unsigned int getCoverage(unsigned int trackType, const ServiceTime& from, const ServiceTime& to,
                             std::vector<CoverageInterval>* intervals) override {
        *intervals = {{from, to, trackType}};
        return 0;
    }
    unsigned int findCoverage(unsigned int trackType, const ServiceTime& from, const ServiceTime& to,
                              unsigned int max, std::vector<CoverageInterval>* intervals, ServiceTime* next,
                              unsigned char* more) override {
        *next = {to.usec, max};
        *more = 5;
        return getCoverage(trackType, from, to, intervals);
    }
    unsigned int findHistory(const ServiceTime& from, const ServiceTime& to, unsigned char backward,
                             unsigned int max, const ServiceCursor& cursor, std::vector<HistoryEvent>* state,
                             std::vector<HistoryEvent>* events, ServiceCursor* next,
                             unsigned char* more) override {
        *state = {{from, 0, backward, max}};
        *events = {{to, 1, 0, 0}};
        *next = cursor;
        *more = 0;
        return 0;
    }
    unsigned int openRecords(unsigned int, const ServiceTime&, const ServiceTime&, int* fd) override {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        EXPECT_EQ(write(ends[1], "records", 7), 7);
        close(ends[1]);
        *fd = ends[0];
        return 0;
    }
};

/// A client without a thread for events: a lost bus is an error of its next call.
class Caller {
public:
    Caller()
        : connection_(quarn::msgbus::BusLink::OpenBus()),
          proxy_(sdbus::createProxy(*connection_, "com.drenn.recording_information",
                                    "/com/drenn/recording_information")) {}
    void Call() {
        std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t> span;
        proxy_->callMethod("getRecordingSummary")
            .onInterface("com.drenn.RecordingInformation1")
            .storeResultsTo(span);
    }

private:
    const std::unique_ptr<sdbus::IConnection> connection_;
    const std::unique_ptr<sdbus::IProxy> proxy_;
};

class ServiceTest : public testing::Test {
protected:
    void Run() {
        run = std::make_unique<DrennApiRecordingInformationTargetRun>("recording_information", nullptr,
                                                                      information);
    }
    /// What busctl prints for one call; its errors, if it failed.
    static std::string Busctl(const std::string& service, const std::string& arguments) {
        const std::string interface = service == "recording_information" ? "Information1" : "DataAccess1";
        return Shell("busctl --user call com.drenn." + service + " /com/drenn/" + service +
                     " com.drenn.Recording" + interface + " " + arguments);
    }
    static std::string Shell(const std::string& command) {
        Program program("/usr/bin/env", {"sh", "-c", command}, "/");
        const bool failed = program.Wait() != 0;
        return failed ? program.Err() : program.Out();
    }

    PrivateBus bus;
    const std::shared_ptr<FakeInformation> information = std::make_shared<FakeInformation>();
    std::unique_ptr<DrennApiRecordingInformationTargetRun> run;
};

TEST_F(ServiceTest, AClientInAnotherProcessCallsEveryOperation) {
    Run();
    DrennApiRecordingDataAccessTargetRun access("recording_data_access", nullptr,
                                                std::make_shared<FakeDataAccess>());
    const auto ask = [](const char* arguments) { return Busctl("recording_information", arguments); };
    EXPECT_EQ(ask("getRecordingSummary"), "uuuu 1 2 3 4\n");
    EXPECT_EQ(ask("getTrackSummary u 2"), "uuuu 2 6 7 8\n");
    EXPECT_EQ(ask("getRecordingState uu 5 6"), "yyyy 1 2 5 6\n");
    EXPECT_EQ(ask("getAudioAttributes uu 11 12"), "uuduuuu 16 2 44100.5 11 12 13 14\n");
    EXPECT_EQ(ask("getVideoAttributes uu 25 26"), "uuuuduuuu 21 1920 1080 24 29.97 25 26 27 28\n");

    const auto askData = [](const char* arguments) { return Busctl("recording_data_access", arguments); };
    EXPECT_EQ(askData("getFirstRecordingHistoryEventTime"), "uu 31 32\n");
    EXPECT_EQ(askData("getRecordingHistoryEvent '(uuu)' 1 2 3"), "(uuuyu)(uuu) 1 2 1 1 2 1 2 4\n");
    EXPECT_EQ(askData("getMetadata '(uuu)uu' 1 2 0 5 6"), "a(uuay)(uuu)y 2 1 2 2 97 98 5 6 0 5 6 1 1\n");
    EXPECT_EQ(askData("getCoverage uuuuu 2 1 2 3 4"), "a(uuuuu) 1 1 2 3 4 2\n");
    EXPECT_EQ(askData("findCoverage uuuuuu 2 1 2 3 4 9"), "a(uuuuu)uuy 1 1 2 3 4 2 4 9 5\n");
    EXPECT_EQ(askData("findHistory uuuuyu'(uuu)' 1 2 3 4 1 9 7 8 0"),
              "a(uuuyu)a(uuuyu)(uuu)y 1 1 2 0 1 9 1 3 4 1 0 0 7 8 0 0\n");
    EXPECT_THAT(askData("openRecords uuuuu 0 1 2 3 4"), HasSubstr("h "));

    auto client = sdbus::createProxy(sdbus::createSessionBusConnectionWithAddress(bus.Address()),
                                     "com.drenn.recording_data_access", "/com/drenn/recording_data_access");
    sdbus::UnixFd records;
    client->callMethod("openRecords")
        .onInterface("com.drenn.RecordingDataAccess1")
        .withArguments(0U, 1U, 2U, 3U, 4U)
        .storeResultsTo(records);
    char text[8] = {};
    EXPECT_EQ(read(records.get(), text, sizeof text), 7);
    EXPECT_STREQ(text, "records");
}

TEST_F(ServiceTest, StrangersCanIntrospectAndWatch) {
    Run();
    const std::string described = Shell(
        "gdbus introspect --session --dest com.drenn.recording_information --object-path "
        "/com/drenn/recording_information");
    for (const char* name :
         {"getRecordingSummary", "getTrackSummary", "getRecordingState", "getAudioAttributes",
          "getVideoAttributes", "dataPresent", "dataDeleted", "samplingFrequency"}) {
        EXPECT_THAT(described, HasSubstr(name));
    }
    const TempFolder folder;
    Program monitor(
        "/usr/bin/env",
        {"sh", "-c", "exec gdbus monitor --session --dest com.drenn.recording_information > seen"},
        folder.Path());
    EXPECT_TRUE(WaitUntil([&] {
        information->sendEventDataDeleted(1, 2, 3, 4, 5);
        return folder.Read("seen").find("dataDeleted (uint32 1, uint32 2, uint32 3, uint32 4, uint32 5)") !=
               std::string::npos;
    }));
}

TEST_F(ServiceTest, EventsReachTwoClientsInTheirOrder) {
    information->sendEventDataPresent(0, 1); // There is no runner yet: it is lost.
    Run();
    InformationClient first(bus.Address());
    InformationClient second(bus.Address());
    information->sendEventDataPresent(0, 1);
    information->sendEventDataDeleted(1, 2, 3, 4, 5);
    information->sendEventDataPresent(2, 0);
    for (const InformationClient* client : {&first, &second}) {
        EXPECT_TRUE(WaitUntil([&] { return client->Events().size() == 3; }));
        EXPECT_THAT(client->Events(), ElementsAre("present 0 1", "deleted 1 2 3 4 5", "present 2 0"));
    }
    EXPECT_EQ(run->getDroppedEvents(), 0U);
}

TEST_F(ServiceTest, FailuresKeepTheirTextAndTheirNumber) {
    Run();
    InformationClient client(bus.Address());
    try {
        client.getTrackSummary(3);
        ADD_FAILURE() << "status 1 is an error";
    } catch (const sdbus::Error& error) {
        EXPECT_EQ(error.getName(), "com.drenn.Error.Status1");
        EXPECT_EQ(error.getMessage(), "getTrackSummary answered status 1");
    }
    try {
        client.getTrackSummary(99);
        ADD_FAILURE() << "what the operation throws is an error";
    } catch (const sdbus::Error& error) {
        EXPECT_EQ(error.getName(), "com.drenn.Error.Failed");
        EXPECT_EQ(error.getMessage(), "Recording is currently disabled");
    }
    EXPECT_THAT(Busctl("recording_information", "getTrackSummary s two"), HasSubstr("Invalid"));
}

TEST_F(ServiceTest, NoBusAtTheStartAndATakenNameAreClearErrors) {
    Run();
    EXPECT_THAT(ThrownText([&] {
                    DrennApiRecordingInformationTargetRun("recording_information", nullptr,
                                                          std::make_shared<FakeInformation>());
                }),
                HasSubstr("com.drenn.recording_information"));
    run = nullptr;
    bus.Kill();
    EXPECT_THAT(ThrownText([&] { Run(); }), HasSubstr("Cannot use the bus (session): "));
}

TEST_F(ServiceTest, TheBusMayBeKilledUnderLoad) {
    const quarn::core::LogCapture capture(quarn::core::LogLevel::Information);
    Run();
    std::atomic<bool> stop{false};
    std::atomic<int> answers{0};
    std::thread load([&] {
        RunInThreads(3, [&](int) {
            while (!stop) {
                try {
                    Caller caller;
                    while (!stop) {
                        caller.Call();
                        ++answers;
                    }
                } catch (const std::exception&) { // There is no bus at the moment.
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                }
            }
        });
    });
    for (int round = 0; round != 3; ++round) {
        const int before = answers;
        EXPECT_TRUE(WaitUntil([&] { return answers > before + 20; })) << "round " << round;
        bus.Kill();
        EXPECT_TRUE(WaitUntil([&] {
            const auto dropped = run->getDroppedEvents();
            information->sendEventDataPresent(0, 1);
            return run->getDroppedEvents() > dropped;
        })) << "events of the time without a bus are dropped and counted";
        bus.Start();
    }
    const int before = answers;
    EXPECT_TRUE(WaitUntil([&] { return answers > before + 20; }));
    stop = true;
    load.join();
    EXPECT_TRUE(capture.Contains("Connected to the bus"));
}

TEST_F(ServiceTest, AClientKilledInTheMiddleOfACallHarmsNobody) {
    Run();
    information->delayMs = 200;
    {
        Program client(
            "/usr/bin/busctl",
            {"--user", "call", "com.drenn.recording_information", "/com/drenn/recording_information",
             "com.drenn.RecordingInformation1", "getRecordingSummary"},
            "/");
        EXPECT_TRUE(WaitUntil([&] { return information->calls == 1; }));
        client.Signal(SIGKILL);
    }
    information->delayMs = 0;
    EXPECT_EQ(Busctl("recording_information", "getRecordingSummary"), "uuuu 1 2 3 4\n");
}

TEST_F(ServiceTest, AnEventSenderNeverWaitsAndTheQueueIsBounded) {
    Run();
    information->delayMs = 300;
    InformationClient client(bus.Address());
    std::thread caller([&] { client.getRecordingSummary(); });
    EXPECT_TRUE(WaitUntil([&] { return information->calls == 1; }));
    for (unsigned int number = 0; number != 1000; ++number) {
        information->sendEventDataPresent(number, 1); // The service's thread is busy all the while.
    }
    caller.join();
    const auto kept = 1000 - run->getDroppedEvents();
    EXPECT_GE(kept, 256U);
    EXPECT_LT(kept, 1000U);
    EXPECT_TRUE(WaitUntil([&] { return client.Events().size() == kept; }));
}

TEST_F(ServiceTest, ARunnerEndsWhileCallsAreUnderWay) {
    for (int round = 0; round != 5; ++round) {
        Run();
        std::atomic<int> ended{0};
        std::thread clients([&] {
            RunInThreads(4, [&](int) {
                try {
                    Caller caller;
                    for (;;) {
                        caller.Call();
                    }
                } catch (const sdbus::Error&) {
                    ++ended; // The service went away.
                }
            });
        });
        const int before = information->calls;
        EXPECT_TRUE(WaitUntil([&] { return information->calls > before + 10; }));
        run = nullptr;
        clients.join();
        EXPECT_EQ(ended, 4);
    }
}

/// The installed policy for a user and a group, as part of a bus that is as strict as the system's.
class ServicePolicyTest : public testing::Test {
protected:
    static constexpr const char* kStrict = R"(
      <deny own="*"/><deny send_type="method_call"/>
      <allow send_type="signal"/><allow send_type="error"/><allow send_type="method_return"/>
      <allow receive_type="method_call"/><allow receive_type="method_return"/>
      <allow receive_type="error"/><allow receive_type="signal"/>
      <allow send_destination="org.freedesktop.DBus"/>)";

    static std::string Policy(const std::string& user, const std::string& group) {
        std::ifstream file(CALVANE_SOURCE_DIR "/packaging/dbus/com.drenn.recorder.conf");
        std::string text{std::istreambuf_iterator<char>(file), {}};
        text = std::regex_replace(text, std::regex("user=\"calvane\""), "user=\"" + user + "\"");
        text = std::regex_replace(text, std::regex("group=\"recording\""), "group=\"" + group + "\"");
        const auto begin = text.find("<busconfig>") + 11;
        return text.substr(begin, text.find("</busconfig>") - begin);
    }
    static std::string Own() { return std::to_string(getuid()); }
    static std::string OwnGroup() { return std::to_string(getgid()); }

    template <typename Call>
    static std::string ErrorOf(const Call& call) {
        try {
            call();
        } catch (const sdbus::Error& error) {
            return error.getName();
        }
        return "none";
    }
};

TEST_F(ServicePolicyTest, TheServicesUserOwnsTheNamesAndTheGroupMayAsk) {
    const PrivateBus bus(kStrict, Policy(Own(), OwnGroup()));
    const auto information = std::make_shared<FakeInformation>();
    DrennApiRecordingInformationTargetRun run("recording_information", nullptr, information);
    DrennApiRecordingDataAccessTargetRun access("recording_data_access", nullptr,
                                                std::make_shared<FakeDataAccess>());
    InformationClient client(bus.Address());
    EXPECT_EQ(std::get<0>(client.getRecordingSummary()), 1U);
    information->sendEventDataPresent(1, 1);
    EXPECT_TRUE(WaitUntil([&] { return client.Events().size() == 1; }));
    std::atomic<int> messages{0};
    quarn::msgbus::MsgBus here;
    quarn::msgbus::MsgBus there;
    here.Subscribe("door", [&](const quarn::msgbus::Message&) { ++messages; });
    EXPECT_TRUE(WaitUntil([&] {
        there.PublishText("door", "open");
        return messages > 0;
    }));
    // Nothing but the services' own interfaces.
    EXPECT_EQ(ErrorOf([&] {
                  sdbus::createProxy(sdbus::createSessionBusConnectionWithAddress(bus.Address()),
                                     "com.drenn.recording_information", "/com/drenn/recording_information")
                      ->callMethod("GetAll")
                      .onInterface("org.freedesktop.DBus.Properties")
                      .withArguments("com.drenn.RecordingInformation1");
              }),
              "org.freedesktop.DBus.Error.AccessDenied");
    // Of the limit they may read, not set.
    const auto owner = sdbus::createSessionBusConnectionWithAddress(bus.Address());
    owner->requestName("com.drenn.recording_control");
    owner->enterEventLoopAsync();
    const auto control = sdbus::createProxy(sdbus::createSessionBusConnectionWithAddress(bus.Address()),
                                            "com.drenn.recording_control", "/com/drenn/recording_control");
    const auto errorOf = [&](const char* method) {
        return ErrorOf([&] { control->callMethod(method).onInterface("com.drenn.RecordingControl1"); });
    };
    EXPECT_EQ(errorOf("getMaximumRetention"), "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(errorOf("setMaximumRetention"), "org.freedesktop.DBus.Error.AccessDenied");
}

TEST_F(ServicePolicyTest, OthersMayNeitherOwnNorAskNorListen) {
    {
        const PrivateBus bus(kStrict, Policy("65534", OwnGroup()));
        EXPECT_THAT(ThrownText([] {
                        DrennApiRecordingInformationTargetRun("recording_information", nullptr,
                                                              std::make_shared<FakeInformation>());
                    }),
                    HasSubstr("com.drenn.recording_information"));
        std::atomic<int> messages{0};
        quarn::msgbus::MsgBus here;
        quarn::msgbus::MsgBus forger;
        here.Subscribe("door", [&](const quarn::msgbus::Message&) { ++messages; });
        forger.PublishText("door", "open");
        EXPECT_TRUE(WaitUntil([&] { return here.IsConnected() && forger.IsConnected(); }));
        InformationClient client(bus.Address());
        for (int i = 0; i < 50; ++i) {
            forger.PublishText("door", "open");
            ErrorOf([&] { client.getRecordingSummary(); }); // Takes its time.
        }
        EXPECT_EQ(messages, 0);
    }
    const PrivateBus bus(kStrict, Policy(Own(), "65534"));
    const auto information = std::make_shared<FakeInformation>();
    DrennApiRecordingInformationTargetRun run("recording_information", nullptr, information);
    InformationClient client(bus.Address());
    information->sendEventDataPresent(1, 1);
    EXPECT_EQ(ErrorOf([&] { client.getRecordingSummary(); }), "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_THAT(client.Events(), testing::IsEmpty());
}

} // namespace
