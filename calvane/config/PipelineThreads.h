#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "calvane/Export.h"
#include "calvane/graph/PluginThreading.h"

namespace quarn::calvane {

/// Works out which threads call which plugins: that of each pipeline, from the head on, and that of each plugin
/// with a thread of its own, from what follows it on. Threads are named "pipeline NAME" and "queue NAME".
///
/// Threads: one at a time.
class CALVANE_API PipelineThreads {
public:
    /// Names of threads, or of plugins with the threads that call them.
    using Names = std::set<std::string>;
    using NamesByPlugin = std::map<std::string, Names>;

    /// A pipeline that is there already begins anew, without connections of its own.
    void AddPipeline(const std::string& pipeline, const std::string& head);
    /// `owner`: the pipeline with which the connection goes when that is removed.
    void AddConnection(const std::string& from, const std::string& to, const std::string& owner = {});
    void RemovePipeline(const std::string& pipeline);
    /// What is known of a plugin. A plugin of which nothing is known is taken to push on the caller's thread.
    void SetThreading(const std::string& plugin, PluginThreading threading);

    /// The threads that call each plugin, as far as they are certain: what follows a plugin of which nothing
    /// is known is called by nobody for certain.
    NamesByPlugin FindCallers() const { return FindCallers(false); }
    /// The threads that work on each plugin: its callers, or only its own thread if it has one.
    NamesByPlugin FindWorkers() const;

    /// The first plugin, in ascending order, that more threads call than it allows, and these threads. Those
    /// that follow such a plugin are not searched. An empty name when there is none.
    std::pair<std::string, Names> FindConflict() const;
    /// The error text for what FindConflict found.
    static std::string DescribeConflict(const std::pair<std::string, Names>& conflict);

private:
    struct Connection {
        std::string from;
        std::string to;
        std::string owner;
    };
    using Successors = std::map<std::string, std::set<std::string>>;

    NamesByPlugin FindCallers(bool throughUnknown) const;
    void Spread(const std::string& thread, const std::string& first, const Successors& successors,
                bool throughUnknown, NamesByPlugin& callers) const;
    bool HasJoin() const; ///< Whether a plugin is fed by more than one connection or pipeline.
    bool HasThreading(const std::string& plugin, PluginThreading threading) const;

    std::map<std::string, std::string> heads_; // By pipeline.
    std::vector<Connection> connections_;
    std::map<std::string, PluginThreading> threading_;
};

} // namespace quarn::calvane
