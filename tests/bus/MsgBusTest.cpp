#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quarn/core/LogCapture.h"
#include "quarn/msgbus/MsgBus.h"
#include "support/PrivateBus.h"
#include "support/ThrownText.h"
#include "support/WaitUntil.h"

namespace {

using quarn::msgbus::Message;
using quarn::msgbus::MsgBus;

/// What a subscriber got.
class Inbox {
public:
    void operator()(const Message& message) {
        const std::lock_guard<std::mutex> guard(lock_);
        all_.push_back((message.isText ? "text " : "bytes ") + message.content);
    }
    std::vector<std::string> All() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return all_;
    }
    bool Has(const std::string& content) const {
        const auto all = All();
        return std::find(all.begin(), all.end(), content) != all.end();
    }

private:
    mutable std::mutex lock_;
    std::vector<std::string> all_;
};

TEST(MsgBusTest, WithoutABusMessagesStayInTheProcessWhichIsSaidOnce) {
    setenv("DRENN_BUS", "unix:path=/nowhere/at/all", 1);
    const quarn::core::LogCapture capture(quarn::core::LogLevel::Warning);
    Inbox inbox;
    MsgBus bus;
    const int subscription = bus.Subscribe("door", std::ref(inbox));
    bus.PublishText("door", "open");
    bus.PublishBytes("door", "\0\1", 2);
    bus.PublishText("window", "open");
    EXPECT_EQ(inbox.All(), (std::vector<std::string>{"text open", std::string("bytes \0\1", 8)}));
    bus.Unsubscribe(subscription);
    bus.PublishText("door", "shut");
    EXPECT_EQ(inbox.All().size(), 2U);
    EXPECT_TRUE(WaitUntil([&] { return !capture.GetLines().empty(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // Some further attempts.
    ASSERT_EQ(capture.GetLines().size(), 1U);
    const std::string text = capture.GetLines()[0].text;
    EXPECT_NE(text.find("/nowhere/at/all"), std::string::npos) << text;
    EXPECT_NE(text.find("messages stay within this process"), std::string::npos) << text;
    EXPECT_FALSE(bus.IsConnected());

    EXPECT_EQ(ThrownText([&] { bus.PublishText("it's", ""); }), "Not a topic for the message bus: \"it's\"");
    EXPECT_EQ(ThrownText([&] { bus.Subscribe("", std::ref(inbox)); }),
              "Not a topic for the message bus: \"\"");
    EXPECT_NE(ThrownText([&] {
                  bus.PublishText("t", std::string(MsgBus::kMaxContentBytes + 1, ' '));
              }).find("1048577 bytes"),
              std::string::npos);
    unsetenv("DRENN_BUS");
}

TEST(MsgBusTest, MessagesReachOtherProcessesAndAgainAfterTheBusWasLost) {
    PrivateBus daemon;
    Inbox own;
    Inbox inbox;
    MsgBus here;
    MsgBus there; // A connection of its own, as another process would have.
    here.Subscribe("door", std::ref(own));
    there.Subscribe("door", std::ref(inbox));
    const auto arrives = [&](const std::string& text) {
        return WaitUntil([&] {
            here.PublishText("door", text);
            return inbox.Has("text " + text);
        });
    };
    EXPECT_TRUE(arrives("open"));
    const std::string bytes("\0\xFF\n", 3);
    here.PublishBytes("door", bytes.data(), bytes.size());
    EXPECT_TRUE(WaitUntil([&] { return inbox.Has("bytes " + bytes); }));
    here.PublishText("door", std::string(MsgBus::kMaxContentBytes, 'x'));
    EXPECT_TRUE(WaitUntil([&] { return inbox.Has("text " + std::string(MsgBus::kMaxContentBytes, 'x')); }));
    // What this process published comes back to nobody.
    const auto count = own.All().size();
    EXPECT_TRUE(arrives("once"));
    const auto published = own.All();
    EXPECT_EQ(
        std::count(published.begin() + static_cast<std::ptrdiff_t>(count), published.end(), "text once"),
        static_cast<std::ptrdiff_t>(published.size() - count));

    daemon.Kill();
    EXPECT_TRUE(WaitUntil([&] { return !here.IsConnected() && !there.IsConnected(); }));
    const auto dropped = here.GetDropped();
    here.PublishText("door", "unheard");
    EXPECT_EQ(here.GetDropped(), dropped + 1);
    EXPECT_TRUE(own.Has("text unheard"));
    daemon.Start();
    EXPECT_TRUE(arrives("again"));
    EXPECT_FALSE(inbox.Has("text unheard"));
}

TEST(MsgBusTest, AStalledBusCostsLittleAndHoldsNobodyUp) {
    PrivateBus daemon;
    Inbox inbox;
    auto here = std::make_unique<MsgBus>();
    MsgBus there;
    there.Subscribe("t", std::ref(inbox));
    EXPECT_TRUE(WaitUntil([&] {
        here->PublishText("t", "first");
        return inbox.Has("text first");
    }));
    const auto before = here->GetDropped();
    daemon.Signal(SIGSTOP);
    const std::string large(100'000, 'x');
    for (int i = 0; i < 1000; ++i) {
        here->PublishText("t", large);
    }
    EXPECT_GT(here->GetDropped() - before, 700U);
    // Once the connection's own buffer is full nothing is handed on, however much time there is for it.
    bool isFull = false;
    for (int round = 0; round < 240 && !isFull; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const auto dropped = here->GetDropped();
        for (int i = 0; i < 20; ++i) {
            here->PublishText("t", large);
        }
        isFull = here->GetDropped() - dropped == 20;
    }
    EXPECT_TRUE(isFull);
    here->Subscribe("late", std::ref(inbox)); // Asks the bus, which does not answer.
    here = nullptr;
    MsgBus silent; // Connects to what does not answer.
    silent.PublishText("t", "unheard");
    daemon.Signal(SIGCONT);
    EXPECT_TRUE(WaitUntil([&] {
        silent.PublishText("t", "last");
        return inbox.Has("text last");
    }));
}

TEST(MsgBusTest, ASubscriberMayEndItselfAndNoneIsCalledAfterItsEnd) {
    setenv("DRENN_BUS", "unix:path=/nowhere/at/all", 1);
    int calls = 0;
    int self = 0;
    MsgBus bus;
    self = bus.Subscribe("t", [&](const Message&) {
        ++calls;
        bus.Unsubscribe(self);
    });
    bus.PublishText("t", "");
    bus.PublishText("t", "");
    EXPECT_EQ(calls, 1);

    std::atomic<bool> stop{false};
    std::thread publisher([&] {
        while (!stop) {
            bus.PublishText("t", "");
        }
    });
    for (int round = 0; round != 200; ++round) {
        auto alive = std::make_unique<std::atomic<int>>(0);
        const int number = bus.Subscribe("t", [counter = alive.get()](const Message&) { ++*counter; });
        EXPECT_TRUE(WaitUntil([&] { return *alive > 0; }));
        bus.Unsubscribe(number);
        alive = nullptr; // A late call would be seen by the sanitizers.
    }
    stop = true;
    publisher.join();
    // Two that end each other, each on a thread of its own, while both run.
    std::atomic<int> running{0};
    std::atomic<int> numbers[2] = {0, 0};
    for (int one = 0; one < 2; ++one) {
        numbers[one] = bus.Subscribe("mutual." + std::to_string(one), [&, one](const Message&) {
            ++running;
            EXPECT_TRUE(WaitUntil([&] { return running == 2; }));
            bus.Unsubscribe(numbers[1 - one]);
        });
    }
    std::thread other([&] { bus.PublishText("mutual.1", ""); });
    bus.PublishText("mutual.0", "");
    other.join();
    bus.PublishText("mutual.0", "");
    EXPECT_EQ(running, 2);
    unsetenv("DRENN_BUS");
}

} // namespace
