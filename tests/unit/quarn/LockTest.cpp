#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include "quarn/osa/Exception.h"
#include "quarn/osa/LockException.h"
#include "quarn/osa/Mutex.h"
#include "quarn/osa/MutexAutoLock.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/tMsgQueue.h"

using namespace quarn::osa;

TEST(Exception, NeverReadsAFinishedTextAsAFormat) {
    const std::string text = "100%s %n done";
    EXPECT_EQ(text, std::string(Exception(text).what()));
    EXPECT_EQ(text, std::string(Exception(text.c_str()).what()));
    EXPECT_EQ(text, std::string(LockException(2, text).what()));
    EXPECT_EQ("7 of 100%", std::string(Exception("%d of %s%%", 7, "100").what()));
    const std::string longText(5000, 'x');
    EXPECT_EQ(longText + "!", std::string(Exception("%s!", longText.c_str()).what()));
}

TEST(Mutex, TimesOutWhileAnotherThreadHoldsIt) {
    Mutex mutex("held");
    mutex.Lock();
    std::thread([&mutex] {
        EXPECT_FALSE(mutex.TryLock(0));
        EXPECT_FALSE(mutex.TryLock(20));
        try {
            const MutexAutoLock lock(mutex, 10);
            FAIL() << "locked twice";
        } catch (const LockException& error) {
            EXPECT_STREQ("Lock Timeout", error.what());
            EXPECT_TRUE(error.IsTimeout());
        }
    }).join();
    mutex.Unlock();
    std::thread([&mutex] {
        EXPECT_TRUE(mutex.TryLock(20));
        mutex.Unlock();
    }).join();
}

TEST(Mutex, TellsAThreadThatItLocksTwiceOrUnlocksWhatItDoesNotHold) {
    Mutex mutex("mine");
    const auto codeOf = [](auto action) {
        try {
            action();
        } catch (const LockException& error) {
            EXPECT_NE(std::string::npos, std::string(error.what()).find("\"mine\"")) << error.what();
            return error.GetCode();
        }
        return 0;
    };
    EXPECT_EQ(EPERM, codeOf([&] { mutex.Unlock(); }));
    mutex.Lock();
    EXPECT_EQ(EDEADLK, codeOf([&] { mutex.Lock(); }));
    mutex.Unlock();
}

TEST(Semaphore, KeepsItsBounds) {
    EXPECT_THROW(Semaphore("bad", 3, 2), LockException);
    Semaphore semaphore("bounded", 1, 2);
    semaphore.Release();
    EXPECT_THROW(semaphore.Release(), LockException);
    EXPECT_TRUE(semaphore.TryLock(0));
    EXPECT_TRUE(semaphore.TryLock(0));
    EXPECT_FALSE(semaphore.TryLock(0));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(semaphore.TryLock(30));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

TEST(Semaphore, LosesNoWakeUpBetweenManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    Semaphore semaphore("busy", 0, kThreads * kRounds);
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i != kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round != kRounds; ++round) {
                // Short time-outs mix givers-up with sleepers.
                while (!semaphore.TryLock(round % 3 == 0 ? 1 : kNoTimeout)) {
                }
                ++taken;
            }
        });
        threads.emplace_back([&] {
            for (int round = 0; round != kRounds; ++round) {
                semaphore.Release();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(kThreads * kRounds, taken);
    EXPECT_FALSE(semaphore.TryLock(0));
}

TEST(MessageQueue, IsBoundedAndFirstInFirstOut) {
    tMsgQueue<int> queue("numbers", 2);
    queue.SendMsg(1);
    queue.SendMsg(2);
    try {
        queue.SendMsg(3);
        FAIL() << "a third message fitted";
    } catch (const Exception& error) {
        EXPECT_STREQ("Message Queue Is Full", error.what());
    }
    EXPECT_EQ(2, queue.Size());
    int message = 0;
    EXPECT_TRUE(queue.GetMsg(message, 0));
    EXPECT_EQ(1, message);
    EXPECT_TRUE(queue.TryGetMsg(message, 0));
    EXPECT_EQ(2, message);
    EXPECT_FALSE(queue.TryGetMsg(message, 5));
    try {
        queue.GetMsg(message, 5);
        FAIL() << "a message came out of an empty queue";
    } catch (const LockException& error) {
        EXPECT_STREQ("Lock Timeout", error.what());
        EXPECT_TRUE(error.IsTimeout());
    }
}
