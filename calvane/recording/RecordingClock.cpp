#include "calvane/recording/RecordingClock.h"

#include <sys/timex.h>
#include <unistd.h>

#include <atomic>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <ctime>

namespace quarn::calvane {
namespace {

/// Also while the machine sleeps: that is no jump of the clock.
std::int64_t machineSteadyMicroseconds() {
    timespec since{};
    clock_gettime(CLOCK_BOOTTIME, &since);
    return std::int64_t{since.tv_sec} * 1'000'000 + since.tv_nsec / 1000;
}

bool isMachineSynchronised() {
    timex state{};
    const bool isKernelSure = adjtimex(&state) >= 0 && (state.status & STA_UNSYNC) == 0;
    return isKernelSure || access("/run/systemd/timesync/synchronized", F_OK) == 0;
}

const RecordingClock::Source kMachine{boost::posix_time::microsec_clock::universal_time,
                                      machineSteadyMicroseconds, isMachineSynchronised};

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
