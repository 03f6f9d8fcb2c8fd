#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "quarn/core/IniFile.h"

namespace calvane_program {

/// The graph of a description: its plugins, what feeds what, and on which threads each plugin works.
///
/// A pipeline's thread reaches from the head to the next queues. A queue starts a thread of its own, to which
/// the queue itself is counted and all that follows it up to the next queues: from there on buffers travel
/// on that thread, although they are put into the queue on another.
class DescribedGraph {
public:
    struct Connection {
        std::string from;
        std::string output; ///< Empty for the output without a name.
        std::string to;
        bool operator<(const Connection& other) const;
    };

    /// `ini` is a description in which CheckDescription finds no error. It must outlive this object.
    explicit DescribedGraph(const quarn::core::IniFile& ini);

    /// The names of all plugins, in the order in which they are made; each once.
    const std::vector<std::string>& GetPlugins() const { return plugins_; }
    /// Those of one plugin after those of another, in the same order; each once.
    const std::vector<Connection>& GetConnections() const { return connections_; }
    /// "pipeline NAME" and "queue NAME" for each thread that the plugin works on.
    const std::set<std::string>& GetThreads(const std::string& plugin) const { return threads_.at(plugin); }

    std::string GetType(const std::string& plugin) const;
    /// Empty for a built-in type.
    std::string GetModule(const std::string& plugin) const;

private:
    void AddPlugins(const std::string& first);
    void AddConnections(const std::string& from, const std::string& key, const std::string& output);
    bool IsQueue(const std::string& plugin) const;
    void Spread(const std::string& thread, const std::string& first);

    const quarn::core::IniFile& ini_;
    std::vector<std::string> plugins_;
    std::vector<Connection> connections_;
    std::set<Connection> known_;
    std::map<std::string, std::vector<std::string>> successors_;
    std::map<std::string, std::set<std::string>> threads_;
};

} // namespace calvane_program
