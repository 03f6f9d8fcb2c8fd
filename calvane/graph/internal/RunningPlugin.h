#pragma once

namespace quarn::calvane {

/// The name of the plugin that the calling thread is in, so that a failure can be attributed to it.
///
/// A call into a plugin enters it and leaves it again when it returns. When it throws, the plugin is not left:
/// whoever catches the exception finds the plugin that it came from, and leaves it then.
///
/// Threads: each has its own. Get may be called from a signal handler.
class RunningPlugin {
public:
    /// Null when the thread is in none. Names live as long as the process.
    static const char* Get() { return running; }
    /// `name` lives as long as the process, as the name of a logger does; null stands for a plugin that is not
    /// known. Returns the plugin before, to be given to Leave.
    static const char* Enter(const char* name) {
        const char* const before = running;
        running = name;
        return before;
    }
    static void Leave(const char* before) { running = before; }

private:
    // With this model an access is one instruction, and safe in a signal handler. `thread_local` would look for a
    // constructor at each access.
    [[gnu::tls_model("initial-exec")]] static __thread const char* running;
};

} // namespace quarn::calvane
