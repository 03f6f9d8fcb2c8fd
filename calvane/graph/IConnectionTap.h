#pragma once

#include <string>

#include "calvane/Export.h"

namespace quarn::calvane {

class Sink;

/// A connection from an output of one plugin to the input of another.
struct Connection {
    std::string upstream;   ///< The name of the plugin that pushes.
    std::string output;     ///< The name of its output; empty for the only output of a plugin.
    std::string downstream; ///< The name of the plugin that receives.
};

/// Gets between the plugins of a description while they are connected, to watch what passes. Without a tap
/// plugins are connected to each other directly, so that watching costs nothing where nobody watches.
///
/// Threads: the one that loads pipelines.
class CALVANE_API IConnectionTap {
public:
    /// Returns the sink that the upstream plugin is to be connected to: `sink` itself, or one that hands on
    /// to it whatever it gets, for instance a ForwardingSink. That one stays the tap's and lives as long as
    /// the plugins. Called once for each connection.
    virtual Sink* OnConnect(const Connection& connection, Sink* sink) = 0;
    virtual ~IConnectionTap() = default;
};

} // namespace quarn::calvane
