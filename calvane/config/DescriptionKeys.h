#pragma once

namespace quarn::calvane::keys {

// The framework's own words in a description.

inline constexpr char kFrameworkGroup[] = "calvane";
inline constexpr char kPipelines[] = "t.pipelines";

inline constexpr char kHead[] = "t.pipeline.head";
inline constexpr char kThreadStackBytes[] = "thread.stack.bytes";
inline constexpr char kThreadPriority[] = "thread.priority";

inline constexpr char kPluginType[] = "t.plugin.type";
inline constexpr char kPluginModule[] = "t.plugin.module";
inline constexpr char kNext[] = "t.pipeline.next";
/// Followed by the name of an output.
inline constexpr char kNextPrefix[] = "t.pipeline.next.";

/// Keys of a plugin group that start like this belong to the framework, all others to the plugin.
inline constexpr char kFrameworkPrefix[] = "t.";

// Descriptions that go beyond these are taken for mistakes: they would exhaust the stack or the memory.

/// Plugins one behind the other. A plugin that passes buffers on takes some 150 bytes of the stack of its thread, more
/// while it is traced, and no thread has less than 256 KiB.
inline constexpr unsigned int kLongestPath = 1000;
/// Places in which the plugins of one pipeline stand: one that several ways lead to stands there once for each,
/// and so does everything behind it.
inline constexpr unsigned int kMostPlaces = 100000;

inline constexpr char kTooLong[] = "More than 1000 plugins follow one another";
inline constexpr char kTooManyWays[] =
    "The plugins of this pipeline stand in more than 100000 places: too many ways lead to the same ones";

} // namespace quarn::calvane::keys
