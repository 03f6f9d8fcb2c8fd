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

} // namespace quarn::calvane::keys
