// Ends while threads wait for events, one of them static, that never come.

#include <sys/prctl.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "calvane/runtime/Sync.h"

using quarn::calvane::Sync;

namespace {

Sync shared("shared");

} // namespace

int main() {
    prctl(PR_SET_PDEATHSIG, SIGKILL); // Not left behind by a test that is stopped.
    constexpr int kThreads = 4;
    std::atomic<int> waiting{0};
    for (int number = 0; number != kThreads; ++number) {
        std::thread([&waiting, number] {
            Sync own("own" + std::to_string(number));
            ++waiting;
            while (own.waitOnSyncEvent(60000) == 0 || shared.waitOnSyncEvent(60000) == 0) {
            }
        }).detach();
    }
    while (waiting != kThreads) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // So that most of them do wait.
    std::exit(0);
}
