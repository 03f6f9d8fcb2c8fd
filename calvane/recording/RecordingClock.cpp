#include "calvane/recording/RecordingClock.h"

#include <atomic>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>

namespace quarn::calvane {
namespace {

std::int64_t machineSteadyMicroseconds() {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(since).count();
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
