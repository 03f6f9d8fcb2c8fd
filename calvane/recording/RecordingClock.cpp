#include "calvane/recording/RecordingClock.h"

#include <sys/timex.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

#include "calvane/recording/RecordingTime.h"

namespace quarn::calvane {
namespace {

std::int64_t microsecondsOf(clockid_t clock) {
    timespec since{};
    clock_gettime(clock, &since);
    return std::int64_t{since.tv_sec} * 1'000'000 + since.tv_nsec / 1000;
}

boost::posix_time::ptime machineNow() {
    return timeFromUnixMicroseconds(microsecondsOf(CLOCK_REALTIME));
}

/// Also while the machine sleeps: that is no jump of the clock.
std::int64_t machineSteadyMicroseconds() {
    return microsecondsOf(CLOCK_BOOTTIME);
}

bool isMachineSynchronised() {
    timex state{};
    const bool isKernelSure = adjtimex(&state) >= 0 && (state.status & STA_UNSYNC) == 0;
    return isKernelSure || access("/run/systemd/timesync/synchronized", F_OK) == 0;
}

const RecordingClock::Source kMachine{machineNow, machineSteadyMicroseconds, isMachineSynchronised};

std::atomic<const RecordingClock::Source*> current{&kMachine};

} // namespace

boost::posix_time::ptime RecordingClock::now() {
    return current.load()->now();
}

std::int64_t RecordingClock::steadyMicroseconds() {
    return current.load()->steadyMicroseconds();
}

bool RecordingClock::isSynchronised() {
    const auto isSynchronised = current.load()->isSynchronised;
    return isSynchronised != nullptr && isSynchronised();
}

void RecordingClock::setSource(const Source* source) {
    current = source != nullptr ? source : &kMachine;
}

} // namespace quarn::calvane
