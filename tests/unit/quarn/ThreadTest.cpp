#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <thread>

#include "quarn/osa/Exception.h"
#include "quarn/osa/Module.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/Thread.h"
#include "quarn/osa/TimeStruct.h"

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
    Thread thread("worker", &body, 2048, priority);
    thread.Run();
    thread.Join();
}

std::string KernelName() {
    std::ifstream file("/proc/self/task/" + std::to_string(syscall(SYS_gettid)) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

int NiceValue() {
    return getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
}

} // namespace

TEST(Thread, HasItsNameAndAStackThatSuffices) {
    std::string name;
    size_t stackBytes = 0;
    Action body([&] {
        name = KernelName();
        pthread_attr_t attributes;
        ASSERT_EQ(0, pthread_getattr_np(pthread_self(), &attributes));
        pthread_attr_getstacksize(&attributes, &stackBytes);
        pthread_attr_destroy(&attributes);
    });
    Thread thread("a-name-of-twenty-one", &body, 2048, 0);
    thread.Run();
    thread.Join();
    EXPECT_EQ("a-name-of-twent", name);
    EXPECT_GE(stackBytes, Thread::kMinimumStackBytes);
}

TEST(Thread, CanBeJoinedByManyAndBeforeItStarts) {
    Semaphore go("go", 0, 1);
    bool ended = false;
    Action body([&] {
        go.Lock();
        ended = true;
    });
    Thread thread("joined", &body, 0, 0);
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
    thread.Join();
}

TEST(Thread, RefusesToWaitForItself) {
    Thread* self = nullptr;
    Action body([&self] { EXPECT_THROW(self->Join(), Exception); });
    Thread thread("self", &body, 0, 0);
    self = &thread;
    thread.Run();
    thread.Join();
}

TEST(Thread, SetsNiceAndRealTimePriorities) {
    const int before = NiceValue();
    RunInThread(0, [&] { EXPECT_EQ(before, NiceValue()); });
    RunInThread(20, [] { EXPECT_EQ(19, NiceValue()); });
    sched_param parameters{};
    parameters.sched_priority = 1;
    if (sched_setscheduler(0, SCHED_FIFO, &parameters) != 0) {
        GTEST_SKIP() << "no right to real-time priorities";
    }
    parameters.sched_priority = 0;
    ASSERT_EQ(0, sched_setscheduler(0, SCHED_OTHER, &parameters));
    for (const int priority : {-21, -119}) {
        RunInThread(static_cast<signed char>(priority), [priority] {
            sched_param found{};
            EXPECT_EQ(SCHED_FIFO, sched_getscheduler(0));
            sched_getparam(0, &found);
            EXPECT_EQ(-20 - priority, found.sched_priority);
        });
    }
    RunInThread(-20, [] { EXPECT_EQ(-20, NiceValue()); });
}

TEST(Thread, SleepsAtLeastAsLongAsAsked) {
    const TimeMonotonic start;
    Thread::CurrentThread::MicroSleep(20000);
    EXPECT_GE(TimeMonotonic() - start, TimeStruct(0, 20000));
}

TEST(TimeStruct, ComputesWithCarryAndWithoutSign) {
    EXPECT_EQ(TimeStruct(2, 500000), TimeStruct(1, 1500000));
    EXPECT_EQ(TimeStruct(0, 999999), TimeStruct(3, 0) - TimeStruct(2, 1));
    EXPECT_EQ(TimeStruct(), TimeStruct(2, 0) - TimeStruct(2, 1));
    EXPECT_EQ(TimeStruct(5, 100000), TimeStruct(2, 600000) + TimeStruct(2, 500000));
    EXPECT_LT(TimeStruct(1, 999999), TimeStruct(2, 0));
    EXPECT_TRUE(TimeStruct(false).IsZero());
    EXPECT_FALSE(TimeStruct(true).IsZero());
}

TEST(Module, SaysWhatItCannotLoadOrFind) {
    const auto textOf = [](auto action) -> std::string {
        try {
            action();
        } catch (const Exception& error) {
            return error.what();
        }
        return "nothing was thrown";
    };
    EXPECT_EQ(0U,
              textOf([] { Module("/no/such/module.so"); }).find("Cannot load module /no/such/module.so: "));
    EXPECT_EQ("Cannot load module: its path is empty", textOf([] { Module(""); }));
    const Module library("libm.so.6");
    EXPECT_NE(nullptr, library.FindSymPtr("cos"));
    EXPECT_EQ(0U, textOf([&] {
                      library.FindSymPtr("no_such_symbol");
                  }).find("Cannot find symbol no_such_symbol in module libm.so.6: "));
}
