// A host as a device may have one: a static pipeline manager, and a main function that waits for its end. The
// first argument says what goes wrong behind or before the queue "q", which is watched.

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <string>
#include <string_view>

#include "calvane/config/PluginManager.h"
#include "calvane/runtime/PipelineManager.h"
#include "quarn/core/Logger.h"
#include "support/TestPlugins.h"
#include "support/clock/TestClock.h"

using namespace quarn::calvane;
using quarn::osa::TimeStruct;

namespace {

std::string_view scenario;

// Before the manager is made. The watchdog looks every 45 s: with this clock, every 200 ms, or every 2 s where it
// must find nothing, however busy the machine is.
[[gnu::constructor(101)]] void SetUp(int, char** arguments, char**) {
    scenario = arguments[1];
    TestClock::LagBehind(scenario == "lively" ? TimeStruct(43, 0) : TimeStruct(44, 800000));
}
PipelineManager manager;

void FillStandardError() {
    int ends[2];
    if (pipe(ends) == 0) {
        dup2(ends[1], STDERR_FILENO);
        const std::string page(4096, 'x');
        fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
        while (write(STDERR_FILENO, page.data(), page.size()) > 0) {
        }
        fcntl(STDERR_FILENO, F_SETFL, 0);
    }
}

// Without a buffer, or with one every few milliseconds. Comes to its end, so that a watchdog that does not
// strike shows: after a minute at least, or after more than two looks of the watchdog.
PipelinePlugin* CreateSource(CalvaneEnv*, const IPluginConfiguration& config) {
    return new TestSource(config.GetPluginName(), [calls = 0](Source& out, auto&) mutable {
        if (scenario != "idle") {
            out.PushBuffer(MakeBuffer("x"));
        }
        const timespec pause{0, 5000000};
        nanosleep(&pause, nullptr);
        return ++calls != (scenario == "lively" ? 1000 : 12000);
    });
}

PipelinePlugin* CreateSink(CalvaneEnv*, const IPluginConfiguration& config) {
    return new TestSink(config.GetPluginName(), [](Buffer&) {
        if (scenario == "lively") {
            return;
        }
        if (scenario == "console") {
            FillStandardError();
            quarn::core::Logger::GetLogger("sink")->Error("stalls");
        }
        for (;;) {
            pause();
        }
    });
}

} // namespace

int main() {
    prctl(PR_SET_PDEATHSIG, SIGKILL); // Not left behind by a test that is stopped.
    PluginManager::RegisterPlugin("Source", &CreateSource);
    PluginManager::RegisterPlugin("Sink", &CreateSink);
    manager.LoadFromIniFile(IniFile::FromText(
        "[calvane]\nt.pipelines=p\n[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=Source\nt.pipeline.next=q\n"
        "[q]\nt.plugin.type=QueuePlugin\nprocmon.timeout.seconds=1\nqueue.length=4\nallow.drop.on.write=1\n"
        "t.pipeline.next=t\n[t]\nt.plugin.type=Sink\n"));
    manager.PipelinesConstructed();
    manager.Start();
    manager.WaitForFinish();
    return 0;
}
