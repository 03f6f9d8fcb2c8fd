#include <gtest/gtest.h>

#include "calvane/runtime/CalvaneEnv.h"
#include "calvane/runtime/MonitorThread.h"
#include "quarn/core/AllocatorProps.h"
#include "quarn/core/IMemoryAllocator.h"
#include "quarn/core/LogCapture.h"
#include "quarn/core/StandardHeapAllocator.h"
#include "quarn/osa/TimeStruct.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using quarn::core::AllocatorProps;

namespace {

class Comm : public CalvaneEnv::PluginComm {
public:
    explicit Comm(int& deleted) : deleted_(deleted) {}
    ~Comm() override { ++deleted_; }

private:
    int& deleted_;
};

class WatchedAllocator : public quarn::core::StandardHeapAllocator {
public:
    explicit WatchedAllocator(int& deleted) : StandardHeapAllocator(0), deleted_(deleted) {}
    ~WatchedAllocator() override { ++deleted_; }

private:
    int& deleted_;
};

class OwnedReporter : public TestReporter {
public:
    explicit OwnedReporter(int& deleted) : deleted_(deleted) {}
    ~OwnedReporter() override { ++deleted_; }

private:
    int& deleted_;
};

} // namespace

TEST(CalvaneEnv, AcceptsModulesOfTheSameMajorAndNoNewerMinorVersion) {
    const quarn::core::LogCapture log;
    CalvaneEnv::AssertVersionCompatible("m.so", 1, 3, 0);
    CalvaneEnv::AssertVersionCompatible("m.so", 1, 0, 9);
    EXPECT_TRUE(log.GetLines().empty());
    CalvaneEnv::AssertVersionCompatible("m.so", 1, 3, 2);
    EXPECT_TRUE(log.Contains(
        "m.so was built against version 1.3.2 of calvane, which is newer than the current version of 1.3.0"));
    for (const auto& [major, minor] : {std::pair<unsigned short, unsigned short>{1, 4}, {0, 9}, {2, 0}}) {
        EXPECT_EQ("m.so expects version " + std::to_string(major) + "." + std::to_string(minor) +
                      ".0 of calvane, which is incompatible with the current version of 1.3.0",
                  ThrownText([major = major, minor = minor] {
                      CalvaneEnv::AssertVersionCompatible("m.so", major, minor, 0);
                  }));
    }
}

TEST(CalvaneEnv, FindsAllocatorsByPropertiesAndOwnsThoseItIsGiven) {
    int deleted = 0;
    {
        CalvaneEnv env;
        auto* const heap = env.GetDefaultAllocator(AllocatorProps::kAddressable);
        EXPECT_NE(nullptr, dynamic_cast<quarn::core::StandardHeapAllocator*>(heap));
        EXPECT_EQ("No default allocator supports properties 0x40000000",
                  ThrownText([&] { env.GetDefaultAllocator(0x40000000); }));
        auto* const mine = new WatchedAllocator(deleted);
        EXPECT_EQ(mine, env.AddPrivateAllocator(mine));
        EXPECT_EQ(heap, env.GetDefaultAllocator(0));
    }
    EXPECT_EQ(1, deleted);
}

TEST(CalvaneEnv, KeepsTheFirstObjectOfAName) {
    int deleted = 0;
    Comm first(deleted);
    {
        CalvaneEnv env(new OwnedReporter(deleted), true);
        EXPECT_EQ(nullptr, env.GetCommObject("a"));
        EXPECT_EQ(&first, env.AddCommObject("a", &first));
        EXPECT_EQ(&first, env.AddCommObject("a", &first)); // Itself: nothing to delete.
        EXPECT_EQ(0, deleted);
        EXPECT_EQ(&first, env.AddCommObject("a", new Comm(deleted)));
        EXPECT_EQ(1, deleted);
        EXPECT_EQ(&first, env.GetCommObject("a"));
        EXPECT_EQ(env.GetMsgBusPtr(), env.GetMsgBusPtr());
        EXPECT_NE(nullptr, env.GetQuarnSettingsClient());
    }
    EXPECT_EQ(2, deleted); // The reporter too, but no object of a plugin.
}

TEST(MonitorThread, HasAHundredEntriesAndStopsAtOnce) {
    const quarn::osa::TimeMonotonic start;
    {
        MonitorThread monitor;
        std::vector<bool*> entries;
        for (int i = 0; i != 100; ++i) {
            entries.push_back(monitor.AddMonitorEntry("entry"));
            ASSERT_NE(nullptr, entries.back());
            EXPECT_TRUE(*entries.back());
        }
        EXPECT_EQ(nullptr, monitor.AddMonitorEntry("one too many"));
        bool stranger = false;
        monitor.DeleteMonitorEntry(&stranger);
        EXPECT_EQ(nullptr, monitor.AddMonitorEntry("still one too many"));
        monitor.DeleteMonitorEntry(entries[41]);
        EXPECT_EQ(entries[41], monitor.AddMonitorEntry("fits again"));
    }
    EXPECT_LT(quarn::osa::TimeMonotonic() - start, quarn::osa::TimeStruct(20, 0)); // The period is 45 s.
}
