#include "calvane/recording/RecordingClock.h"

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

const RecordingClock::Source kMachine{boost::posix_time::microsec_clock::universal_time,
                                      machineSteadyMicroseconds};

std::atomic<const RecordingClock::Source*> current{&kMachine};

} // namespace

boost::posix_time::ptime RecordingClock::now() {
    return current.load()->now();
}

std::int64_t RecordingClock::steadyMicroseconds() {
    return current.load()->steadyMicroseconds();
}

void RecordingClock::setSource(const Source* source) {
    current = source != nullptr ? source : &kMachine;
}

} // namespace quarn::calvane
