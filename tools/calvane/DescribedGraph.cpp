#include "calvane/DescribedGraph.h"

#include <tuple>

#include "calvane/config/DescriptionKeys.h"
#include "quarn/core/StringUtil.h"

namespace calvane_program {

namespace {

namespace keys = quarn::calvane::keys;
using quarn::core::StringUtil;

} // namespace

bool DescribedGraph::Connection::operator<(const Connection& other) const {
    return std::tie(from, output, to) < std::tie(other.from, other.output, other.to);
}

DescribedGraph::DescribedGraph(const quarn::core::IniFile& ini) : ini_(ini) {
    const std::string pipelines = ini.GetValue(keys::kFrameworkGroup, keys::kPipelines);
    for (const std::string& pipeline : StringUtil::Split(pipelines, ',')) {
        const std::string head = ini.GetValue(pipeline, keys::kHead);
        AddPlugins(head);
        if (!IsQueue(head)) {
            Spread("pipeline " + pipeline, head);
        }
    }
    for (const std::string& plugin : plugins_) {
        if (IsQueue(plugin)) {
            Spread("queue " + plugin, plugin);
        }
    }
}

std::string DescribedGraph::GetType(const std::string& plugin) const {
    return ini_.GetValue(plugin, keys::kPluginType);
}

std::string DescribedGraph::GetModule(const std::string& plugin) const {
    return ini_.GetValueOrDefault(plugin, keys::kPluginModule);
}

// The plugin and all that follows it. One with many ways to it is walked once.
void DescribedGraph::AddPlugins(const std::string& first) {
    std::vector<std::string> todo{first};
    while (!todo.empty()) {
        const std::string name = todo.back();
        todo.pop_back();
        if (!threads_.emplace(name, std::set<std::string>()).second) {
            continue;
        }
        plugins_.push_back(name);
        AddConnections(name, keys::kNext, "");
        for (const auto& entry : ini_[name]) {
            if (StringUtil::StartsWith(entry.first, keys::kNextPrefix)) {
                AddConnections(name, entry.first, entry.first.substr(sizeof keys::kNextPrefix - 1));
            }
        }
        const std::vector<std::string>& successors = successors_[name];
        todo.insert(todo.end(), successors.rbegin(), successors.rend());
    }
}

void DescribedGraph::AddConnections(const std::string& from, const std::string& key,
                                    const std::string& output) {
    const std::string names = ini_.GetValueOrDefault(from, key);
    if (names.empty()) {
        return;
    }
    for (const std::string& to : StringUtil::Split(names, ',')) {
        const Connection connection{from, output, to};
        if (known_.insert(connection).second) {
            connections_.push_back(connection);
            successors_[from].push_back(to);
        }
    }
}

bool DescribedGraph::IsQueue(const std::string& plugin) const {
    return GetModule(plugin).empty() && GetType(plugin) == "QueuePlugin";
}

void DescribedGraph::Spread(const std::string& thread, const std::string& first) {
    std::vector<std::string> todo{first};
    while (!todo.empty()) {
        const std::string plugin = todo.back();
        todo.pop_back();
        if (!threads_.at(plugin).insert(thread).second) {
            continue;
        }
        for (const std::string& successor : successors_[plugin]) {
            if (!IsQueue(successor)) {
                todo.push_back(successor);
            }
        }
    }
}

} // namespace calvane_program
