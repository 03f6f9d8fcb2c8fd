#include "calvane/graph/internal/RunningPlugin.h"

namespace quarn::calvane {

namespace {

// With the initial-exec model, access costs one instruction and is safe in a signal handler.
[[gnu::tls_model("initial-exec")]] thread_local const char* running = nullptr;

} // namespace

const char* RunningPlugin::Get() {
    return running;
}

const char* RunningPlugin::Enter(const char* name) {
    const char* const before = running;
    running = name;
    return before;
}

void RunningPlugin::Leave(const char* before) {
    running = before;
}

} // namespace quarn::calvane
