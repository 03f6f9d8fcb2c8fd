#include "calvane/config/PipelineThreads.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>

namespace quarn::calvane {

void PipelineThreads::AddPipeline(const std::string& pipeline, const std::string& head) {
    RemovePipeline(pipeline);
    heads_[pipeline] = head;
}

void PipelineThreads::AddConnection(const std::string& from, const std::string& to,
                                    const std::string& owner) {
    connections_.push_back({from, to, owner});
}

void PipelineThreads::RemovePipeline(const std::string& pipeline) {
    heads_.erase(pipeline);
    connections_.erase(std::remove_if(connections_.begin(), connections_.end(),
                                      [&pipeline](const auto& known) { return known.owner == pipeline; }),
                       connections_.end());
}

void PipelineThreads::SetThreading(const std::string& plugin, PluginThreading threading) {
    threading_[plugin] = threading;
}

PipelineThreads::NamesByPlugin PipelineThreads::FindWorkers() const {
    NamesByPlugin workers = FindCallers(true);
    for (auto& [plugin, threads] : workers) {
        if (HasThreading(plugin, PluginThreading::Own)) {
            threads = {"queue " + plugin};
        }
    }
    return workers;
}

std::pair<std::string, PipelineThreads::Names> PipelineThreads::FindConflict() const {
    if (!HasJoin()) {
        return {};
    }
    const NamesByPlugin callers = FindCallers(false);
    std::set<std::string> conflicts;
    for (const auto& [plugin, threads] : callers) {
        if (threads.size() > 1 && HasThreading(plugin, PluginThreading::One)) {
            conflicts.insert(plugin);
        }
    }
    // Where one such plugin feeds another, the fault lies with the first.
    std::set<std::string> roots = conflicts;
    for (const Connection& connection : connections_) {
        if (conflicts.count(connection.from) != 0) {
            roots.erase(connection.to);
        }
    }
    const std::set<std::string>& candidates = roots.empty() ? conflicts : roots;
    return candidates.empty() ? std::pair<std::string, Names>()
                              : std::pair(*candidates.begin(), callers.at(*candidates.begin()));
}

std::string PipelineThreads::DescribeConflict(const std::pair<std::string, Names>& conflict) {
    std::string threads;
    for (const std::string& thread : conflict.second) {
        threads += (threads.empty() ? "" : ", ") + thread;
    }
    return "Several threads would call plugin " + conflict.first + ", which allows one: " + threads +
           "; let them feed a QueuePlugin before it";
}

PipelineThreads::NamesByPlugin PipelineThreads::FindCallers(bool throughUnknown) const {
    Successors successors;
    for (const Connection& connection : connections_) {
        successors[connection.from].insert(connection.to);
    }
    NamesByPlugin callers;
    for (const auto& [pipeline, head] : heads_) {
        Spread("pipeline " + pipeline, head, successors, throughUnknown, callers);
    }
    for (const auto& [plugin, threading] : threading_) {
        if (threading == PluginThreading::Own) {
            for (const std::string& successor : successors[plugin]) {
                Spread("queue " + plugin, successor, successors, throughUnknown, callers);
            }
        }
    }
    return callers;
}

void PipelineThreads::Spread(const std::string& thread, const std::string& first,
                             const Successors& successors, bool throughUnknown,
                             NamesByPlugin& callers) const {
    std::vector<std::string> todo{first};
    while (!todo.empty()) {
        const std::string plugin = todo.back();
        todo.pop_back();
        const bool known = threading_.count(plugin) != 0;
        if (!callers[plugin].insert(thread).second || HasThreading(plugin, PluginThreading::Own) ||
            (!known && !throughUnknown)) {
            continue;
        }
        const auto found = successors.find(plugin);
        if (found != successors.end()) {
            todo.insert(todo.end(), found->second.begin(), found->second.end());
        }
    }
}

/// Without one, each plugin has one caller: this is all that most descriptions cost at start-up.
bool PipelineThreads::HasJoin() const {
    std::unordered_set<std::string_view> fed;
    return std::any_of(heads_.begin(), heads_.end(),
                       [&fed](const auto& each) { return !fed.insert(each.second).second; }) ||
           std::any_of(connections_.begin(), connections_.end(),
                       [&fed](const auto& each) { return !fed.insert(each.to).second; });
}

bool PipelineThreads::HasThreading(const std::string& plugin, PluginThreading threading) const {
    const auto found = threading_.find(plugin);
    return found != threading_.end() && found->second == threading;
}

} // namespace quarn::calvane
