#include "calvane/config/Description.h"

#include <set>

#include "calvane/config/DescriptionKeys.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/StringUtil.h"

namespace quarn::calvane {

namespace {

using core::StringUtil;

DescribedPlugin ReadPlugin(const core::IniFile& ini, const std::string& name) {
    DescribedPlugin plugin{name,
                           ini.GetValueOrDefault(name, keys::kPluginType),
                           ini.GetValueOrDefault(name, keys::kPluginModule),
                           {},
                           {}};
    // In ascending order, "t.pipeline.next" comes before all keys that go on behind it.
    for (const auto& [key, value] : ini[name]) {
        if (!StringUtil::StartsWith(key, keys::kFrameworkPrefix)) {
            plugin.settings.push_back(key);
        } else if (const bool named = StringUtil::StartsWith(key, keys::kNextPrefix);
                   !value.empty() && (named || key == keys::kNext)) {
            plugin.outputs.push_back(
                {named ? key.substr(sizeof keys::kNextPrefix - 1) : "", key, StringUtil::Split(value, ',')});
        }
    }
    return plugin;
}

/// Walks one pipeline. What was entered and not left yet is the path to the plugin at hand.
class Walker {
public:
    Walker(const Description& description, Description::IVisitor& visitor)
        : description_(description), visitor_(visitor) {}

    void Visit(const DescriptionStep& step) {
        if (onPath_.count(step.plugin) != 0) {
            visitor_.OnCycle(step, DescribeCycle(step.plugin));
        } else if (path_.size() == keys::kLongestPath) {
            visitor_.OnTooLong(step);
        } else if (visitor_.Enter(step)) {
            if (const DescribedPlugin* const plugin = description_.FindPlugin(step.plugin)) {
                VisitSuccessors(*plugin);
            }
            visitor_.Leave(step);
        }
    }

private:
    void VisitSuccessors(const DescribedPlugin& plugin) {
        path_.push_back(&plugin.name);
        onPath_.insert(plugin.name);
        for (const DescribedOutput& output : plugin.outputs) {
            for (const std::string& successor : output.successors) {
                Visit({successor, &plugin, &output, {plugin.name, output.key}});
            }
        }
        onPath_.erase(plugin.name);
        path_.pop_back();
    }

    std::string DescribeCycle(const std::string& plugin) const {
        std::string cycle;
        for (const std::string* step : path_) {
            if (!cycle.empty() || *step == plugin) {
                cycle += *step + " -> ";
            }
        }
        return cycle + plugin;
    }

    const Description& description_;
    Description::IVisitor& visitor_;
    std::vector<const std::string*> path_; // From the head to the plugin before the one at hand.
    std::set<std::string> onPath_;
};

} // namespace

Description::Description(const core::IniFile& ini) : ini_(ini) {
    if (ini.HasValue(keys::kFrameworkGroup, keys::kPipelines)) {
        pipelineNames_ = StringUtil::Split(ini.GetValue(keys::kFrameworkGroup, keys::kPipelines), ',');
    }
    for (const std::string& group : ini.GetGroups()) {
        plugins_.emplace(group, ReadPlugin(ini, group));
    }
}

DescribedPipeline Description::GetPipeline(const std::string& name) const {
    return {name, ini_.GetValueOrDefault(name, keys::kHead)};
}

const DescribedPlugin* Description::FindPlugin(const std::string& name) const {
    const auto found = plugins_.find(name);
    return found != plugins_.end() ? &found->second : nullptr;
}

void Description::Walk(const DescribedPipeline& pipeline, IVisitor& visitor) const {
    Walker(*this, visitor).Visit({pipeline.head, nullptr, nullptr, {pipeline.name, keys::kHead}});
}

unsigned int Description::GetLine(const DescriptionPlace& place) const {
    const unsigned int line = ini_.GetKeyLine(place.group, place.key);
    return line != 0 ? line : ini_.GetGroupLine(place.group);
}

} // namespace quarn::calvane
