#pragma once

namespace quarn::calvane {

/// How many threads may push into a plugin, and on which thread the plugin pushes on. For a plugin that
/// generates buffers, a call of its generator counts as a push.
enum class PluginThreading {
    One, ///< One thread only, always the same. It pushes on during these calls, on the same thread.
    Any, ///< Any number of threads, also at once. It pushes on during each call, on the same thread.
    Own, ///< Any number of threads, also at once. It pushes on from a thread of its own, as a queue does.
};

} // namespace quarn::calvane
