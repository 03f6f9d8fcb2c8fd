#include <gmock/gmock.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

#include "quarn/osa/LockException.h"
#include "quarn/osa/Mutex.h"
#include "quarn/osa/MutexAutoLock.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/TimeStruct.h"
#include "quarn/osa/tMsgQueue.h"
#include "support/Emulation.h"
#include "support/RunInThreads.h"
#include "support/ThrownText.h"
#include "support/WaitUntil.h"

using namespace quarn::osa;

TEST(Exception, NeverReadsAFinishedTextAsAFormat) {
    const std::string text = "100%s %n done";
    EXPECT_EQ(text, Exception(text).what());
    EXPECT_EQ(text, LockException(2, text).what());
    EXPECT_STREQ("7 of 100%", Exception("%d of %s%%", 7, "100").what());
    for (const size_t length : {254U, 255U, 256U, 5000U}) {
        const std::string longText(length, 'x');
        EXPECT_EQ(longText, Exception("%s", longText.c_str()).what());
    }
}

TEST(Mutex, TimesOutWhileAnotherThreadHoldsIt) {
    Mutex mutex("held");
    mutex.Lock();
    std::thread([&mutex] {
        EXPECT_FALSE(mutex.TryLock(0));
        EXPECT_FALSE(mutex.TryLock(20));
        EXPECT_EQ("Lock Timeout", ThrownText<LockException>([&] { MutexAutoLock(mutex, 10); }));
    }).join();
    mutex.Unlock();
    EXPECT_TRUE(mutex.TryLock(20));
    mutex.Unlock();
}

TEST(Mutex, TellsAThreadThatItLocksTwiceOrUnlocksWhatItDoesNotHold) {
    Mutex mutex("mine");
#if !defined(__SANITIZE_THREAD__) // That reports the misuse before the mutex can.
    EXPECT_THAT(ThrownText<LockException>([&] { mutex.Unlock(); }), testing::HasSubstr("\"mine\""));
#endif
    mutex.Lock();
    EXPECT_THAT(ThrownText<LockException>([&] { mutex.Lock(); }), testing::HasSubstr("\"mine\""));
    mutex.Unlock();
}

TEST(Mutex, LendsItsHolderThePriorityOfAWaiter) {
    SKIP_WHEN_EMULATED("no mutex inherits priority");
    Mutex mutex("lent");
    mutex.Lock();
    const std::string self = "/proc/self/task/" + std::to_string(gettid()) + "/stat";
    const auto priority = [&self] { // The 18th word: -2 stands for the real-time priority 1.
        std::ifstream stat(self);
        stat.ignore(1000, ')');
        std::string word;
        for (int skipped = 2; skipped != 18; ++skipped) {
            stat >> word;
        }
        return std::atoi(word.c_str());
    };
    std::atomic<int> refused{0};
    std::thread urgent([&] {
        sched_param parameters{};
        parameters.sched_priority = 1;
        refused = sched_setscheduler(0, SCHED_FIFO, &parameters) != 0 ? errno : 0;
        mutex.Lock();
        mutex.Unlock();
    });
    const bool lent = WaitUntil([&] { return priority() == -2 || refused != 0; });
    mutex.Unlock();
    urgent.join();
    if (refused != 0) {
        GTEST_SKIP() << "no right to real-time priorities: " << strerror(refused);
    }
    EXPECT_TRUE(lent);
    EXPECT_NE(-2, priority());
}

TEST(Semaphore, KeepsItsBoundsAndItsTime) {
    EXPECT_THROW(Semaphore("bad", 3, 2), LockException);
    Semaphore semaphore("bounded", 1, 2);
    semaphore.Release();
    EXPECT_THROW(semaphore.Release(), LockException);
    EXPECT_TRUE(semaphore.TryLock(0) && semaphore.TryLock(0));
    const TimeMonotonic start;
    EXPECT_FALSE(semaphore.TryLock(30));
    EXPECT_GE(TimeMonotonic() - start, TimeStruct(0, 30000));
}

TEST(Semaphore, LosesNoWakeUpBetweenManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    Semaphore semaphore("busy", 0, kThreads * kRounds);
    std::atomic<int> taken{0};
    RunInThreads(2 * kThreads, [&](int number) {
        for (int round = 0; round != kRounds; ++round) {
            if (number % 2 == 0) {
                semaphore.Release();
                continue;
            }
            // Short time-outs mix givers-up with sleepers.
            while (!semaphore.TryLock(round % 3 == 0 ? 1 : kNoTimeout)) {
            }
            ++taken;
        }
    });
    EXPECT_EQ(kThreads * kRounds, taken);
    EXPECT_FALSE(semaphore.TryLock(0));
}

TEST(MessageQueue, IsBoundedAndFirstInFirstOut) {
    tMsgQueue<int> queue("numbers", 2);
    queue.SendMsg(1);
    queue.SendMsg(2);
    EXPECT_EQ("Message Queue Is Full", ThrownText([&] { queue.SendMsg(3); }));
    int message = 0;
    EXPECT_TRUE(queue.GetMsg(message, 0) && message == 1);
    EXPECT_TRUE(queue.GetMsg(message, 0) && message == 2);
    EXPECT_FALSE(queue.TryGetMsg(message, 5));
    EXPECT_EQ("Lock Timeout", ThrownText<LockException>([&] { queue.GetMsg(message, 5); }));
}

TEST(MessageQueue, RemembersHowFullItWasAndDestroysWhatIsLeft) {
    const auto message = std::make_shared<int>(1);
    std::shared_ptr<int> taken;
    {
        tMsgQueue<std::shared_ptr<int>> queue("shared", 3);
        queue.SendMsg(message);
        queue.SendMsg(message);
        EXPECT_TRUE(queue.TryGetMsg(taken, 0));
        queue.SendMsg(message);
        queue.SendMsg(message);
        EXPECT_THROW(queue.SendMsg(message), Exception); // Only now somebody sees three.
        EXPECT_TRUE(queue.TryGetMsg(taken, 0));
        EXPECT_EQ(3, queue.HighWaterMark());
        EXPECT_EQ(2, queue.Size());
    }
    EXPECT_EQ(2, message.use_count());
}

TEST(MessageQueue, TakesFromProducersThatDoNotWaitForEachOther) {
    constexpr int kMessages = 30000;
    tMsgQueue<int> queue("numbers", 2 * kMessages);
    std::atomic<int> arrived{0};
    RunInThreads(2, [&](int self) {
        for (int sent = 0; sent != kMessages; ++sent) {
            if (sent % 100 == 0) { // So that one is not done before the other begins.
                ++arrived;
                while (arrived < 2 * (sent / 100 + 1)) { // Without a pause: both run from here on.
                }
            }
            queue.SendMsg(2 * sent + self);
        }
    });
    std::vector<int> last{-2, -1};
    for (int message = 0; queue.TryGetMsg(message, 0);) {
        int& before = last[static_cast<size_t>(message % 2)];
        ASSERT_EQ(before + 2, message);
        before = message;
    }
    EXPECT_EQ((std::vector<int>{2 * kMessages - 2, 2 * kMessages - 1}), last);
}

TEST(MessageQueue, LosesAndRepeatsNothingBetweenManyThreads) {
    constexpr int kProducers = 2;
    constexpr int kMessages = 20000; // Of each producer, numbered.
    tMsgQueue<int> queue("numbers", 7);
    std::atomic<int> left{kProducers * kMessages};
    std::atomic<int> outOfOrder{0};
    std::atomic<int> mostSeen{0};
    std::vector<std::atomic<int>> seen(kProducers * kMessages);
    RunInThreads(kProducers + 3, [&](int self) {
        while (self == kProducers + 2 && left > 0) { // Only looks.
            const int size = queue.Size();
            mostSeen = std::max({mostSeen.load(), size, queue.HighWaterMark()});
        }
        for (int sent = 0; self < kProducers && sent != kMessages;) {
            try {
                queue.SendMsg(self * kMessages + sent);
                ++sent;
            } catch (const Exception&) {
                std::this_thread::yield(); // Full.
            }
        }
        std::vector<int> last(kProducers, -1);
        int message = 0;
        while (self >= kProducers && self != kProducers + 2 && left > 0) {
            if (queue.TryGetMsg(message, 1)) {
                int& before = last[static_cast<size_t>(message / kMessages)];
                outOfOrder += message > before ? 0 : 1;
                before = message;
                ++seen[static_cast<size_t>(message)];
                --left;
            }
        }
    });
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](const auto& times) { return times == 1; }));
    EXPECT_EQ(0, outOfOrder);
    EXPECT_EQ(0, queue.Size());
    EXPECT_EQ(7, queue.HighWaterMark());
    EXPECT_EQ(7, mostSeen);
}
