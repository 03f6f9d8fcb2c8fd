#include "calvane/runtime/CalvaneEnv.h"
#include "calvane/runtime/MonitorThread.h"
#include "quarn/core/StandardHeapAllocator.h"
#include "quarn/osa/TimeStruct.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using quarn::core::AllocatorProps;

namespace {

/// A `Base` that tells when it is deleted.
template <typename Base>
class Watched : public Base {
public:
    explicit Watched(int& deleted) : deleted_(deleted) {}
    ~Watched() override { ++deleted_; }

private:
    int& deleted_;
};

struct Heap : quarn::core::StandardHeapAllocator {
    Heap() : StandardHeapAllocator(0) {}
};

} // namespace

TEST(CalvaneEnv, AcceptsModulesOfTheSameMajorAndNoNewerMinorVersion) {
    const LogCapture log;
    CalvaneEnv::AssertVersionCompatible("m.so", 1, 3, 0);
    CalvaneEnv::AssertVersionCompatible("m.so", 1, 0, 9);
    EXPECT_TRUE(log.GetLines().empty());
    CalvaneEnv::AssertVersionCompatible("m.so", 1, 3, 2);
    EXPECT_TRUE(log.Contains(
        "m.so was built against version 1.3.2 of calvane, which is newer than the current version of 1.3.0"));
    const unsigned short refused[][2] = {{1, 4}, {0, 9}, {2, 0}};
    for (const auto& [major, minor] : refused) {
        EXPECT_EQ("m.so expects version " + std::to_string(major) + "." + std::to_string(minor) +
                      ".0 of calvane, which is incompatible with the current version of 1.3.0",
                  ThrownText([&] { CalvaneEnv::AssertVersionCompatible("m.so", major, minor, 0); }));
    }
}

TEST(CalvaneEnv, OwnsAllocatorsAndItsReporterButNoObjectOfAPlugin) {
    int deleted = 0;
    Watched<CalvaneEnv::PluginComm> first(deleted);
    {
        CalvaneEnv env(new Watched<TestReporter>(deleted), true);
        auto* const heap = env.GetDefaultAllocator(AllocatorProps::kAddressable);
        EXPECT_EQ("No default allocator supports properties 0x40000000",
                  ThrownText([&] { env.GetDefaultAllocator(0x40000000); }));
        env.AddPrivateAllocator(new Watched<Heap>(deleted));
        EXPECT_EQ(heap, env.GetDefaultAllocator(0));
        EXPECT_EQ(&first, env.AddCommObject("a", &first));
        EXPECT_EQ(&first, env.AddCommObject("a", &first)); // Itself: nothing to delete.
        EXPECT_EQ(0, deleted);
        EXPECT_EQ(&first, env.AddCommObject("a", new Watched<CalvaneEnv::PluginComm>(deleted)));
        EXPECT_EQ(1, deleted);
        EXPECT_EQ(&first, env.GetCommObject("a"));
        EXPECT_EQ(nullptr, env.GetCommObject("b"));
        EXPECT_EQ(env.GetMsgBusPtr(), env.GetMsgBusPtr());
    }
    EXPECT_EQ(3, deleted); // The reporter and the allocator too.
}

TEST(MonitorThread, HasAHundredEntriesAndStopsAtOnce) {
    const quarn::osa::TimeMonotonic start;
    {
        MonitorThread monitor;
        std::vector<bool*> entries;
        for (int i = 0; i != 100; ++i) {
            entries.push_back(monitor.AddMonitorEntry("entry"));
            ASSERT_NE(nullptr, entries.back());
            EXPECT_TRUE(*entries.back()); // Has a whole period to come to life.
        }
        bool stranger = false;
        monitor.DeleteMonitorEntry(&stranger);
        EXPECT_EQ(nullptr, monitor.AddMonitorEntry("one too many"));
        monitor.DeleteMonitorEntry(entries[41]);
        EXPECT_EQ(entries[41], monitor.AddMonitorEntry("fits again"));
    }
    EXPECT_LT(quarn::osa::TimeMonotonic() - start, quarn::osa::TimeStruct(20, 0)); // The period is 45 s.
}
