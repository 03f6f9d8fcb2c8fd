#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "quarn/osa/Module.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/Thread.h"
#include "quarn/osa/TimeStruct.h"
#include "support/ThrownText.h"

using namespace quarn::osa;

namespace {

class Action : public Runnable {
public:
    explicit Action(std::function<void()> action) : action_(std::move(action)) {}
    void Run() override { action_(); }
    void Stop() override {}

private:
    const std::function<void()> action_;
};

void RunInThread(signed char priority, const std::function<void()>& action) {
    Action body(action);
    Thread thread("a-name-of-twenty-one", &body, 2048, priority);
    thread.Run();
    thread.Join();
}

int NiceValue() {
    return getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
}

} // namespace

TEST(Thread, SleepsOnWhenASignalComes) {
    struct sigaction handler {};
    struct sigaction before {};
    handler.sa_handler = [](int) {};
    sigaction(SIGUSR1, &handler, &before);
    std::atomic<bool> slept{false};
    std::thread sleeper([&slept] {
        const TimeMonotonic start;
        Thread::CurrentThread::MicroSleep(50000);
        EXPECT_GE(TimeMonotonic() - start, TimeStruct(0, 50000));
        slept = true;
    });
    while (!slept) {
        pthread_kill(sleeper.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    sleeper.join();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST(Module, IsNeverTheProgramItself) {
    EXPECT_EQ("Cannot load module: its path is empty", ThrownText([] { Module module(""); }));
}

TEST(TimeStruct, CarriesIntoSecondsAndHasNoSign) {
    EXPECT_EQ(TimeStruct(3, 1), TimeStruct(1, 999999) + TimeStruct(1, 2));
    EXPECT_EQ(TimeStruct(0, 999999), TimeStruct(3, 0) - TimeStruct(2, 1));
    EXPECT_EQ(TimeStruct(), TimeStruct(2, 0) - TimeStruct(2, 1));
    EXPECT_LT(TimeStruct(1, 2), TimeStruct(2, 1));
}

TEST(Thread, HasItsNameAndAStackThatSuffices) {
    RunInThread(0, [] {
        char name[16];
        ASSERT_EQ(0, pthread_getname_np(pthread_self(), name, sizeof name));
        EXPECT_STREQ("a-name-of-twent", name);
        pthread_attr_t attributes;
        size_t stackBytes = 0;
        ASSERT_EQ(0, pthread_getattr_np(pthread_self(), &attributes));
        pthread_attr_getstacksize(&attributes, &stackBytes);
        pthread_attr_destroy(&attributes);
        EXPECT_GE(stackBytes, Thread::kMinimumStackBytes);
    });
}

TEST(Thread, CanBeJoinedByManyAndBeforeItStartsButNotByItself) {
    Semaphore go("go", 0, 1);
    bool ended = false;
    Thread* self = nullptr;
    Action body([&] {
        go.Lock();
        EXPECT_THROW(self->Join(), Exception);
        ended = true;
    });
    Thread thread("joined", &body, 0, 0);
    self = &thread;
    thread.Join(); // Never started: returns at once.
    thread.Run();
    EXPECT_THROW(thread.Run(), Exception);
    std::thread other([&] {
        thread.Join();
        EXPECT_TRUE(ended);
    });
    go.Release();
    thread.Join();
    EXPECT_TRUE(ended);
    other.join();
}

TEST(Thread, SetsNiceAndRealTimePriorities) {
    RunInThread(20, [] { EXPECT_EQ(19, NiceValue()); });
    sched_param parameters{};
    parameters.sched_priority = 1;
    if (sched_setscheduler(0, SCHED_FIFO, &parameters) != 0) {
        GTEST_SKIP() << "no right to real-time priorities";
    }
    parameters.sched_priority = 0;
    ASSERT_EQ(0, sched_setscheduler(0, SCHED_OTHER, &parameters));
    RunInThread(-119, [] {
        sched_param found{};
        sched_getparam(0, &found);
        EXPECT_EQ(SCHED_FIFO, sched_getscheduler(0));
        EXPECT_EQ(99, found.sched_priority);
    });
    RunInThread(-20, [] { EXPECT_EQ(-20, NiceValue()); });
}
