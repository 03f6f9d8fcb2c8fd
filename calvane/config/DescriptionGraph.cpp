#include "calvane/config/DescriptionGraph.h"

#include <algorithm>
#include <tuple>

#include "calvane/config/DescriptionKeys.h"
#include "calvane/config/NearestName.h"
#include "quarn/core/IniFile.h"

namespace quarn::calvane {

/// Enters every plugin once.
class DescriptionGraph::Builder final : private Description::IVisitor {
public:
    explicit Builder(DescriptionGraph& graph) : graph_(graph), description_(graph.description_) {}

    void Build() {
        graph_.references_.insert(keys::kFrameworkGroup);
        const core::IniFile& ini = description_.GetIni();
        if (!ini.HasGroup(keys::kFrameworkGroup)) {
            AddFault({keys::kFrameworkGroup, ""}, "Missing group [calvane]");
            return;
        }
        const std::vector<std::string>& names = description_.GetPipelineNames();
        if (names.empty() || (names.size() == 1 && names[0].empty())) {
            AddMissing({keys::kFrameworkGroup, keys::kPipelines});
            return;
        }
        for (const std::string& name : names) {
            AddPipeline(name);
        }
        AddConnections();
    }

private:
    /// How much a plugin and all that follows it take in a pipeline.
    struct Extent {
        unsigned int places = 1;
        unsigned int longestPath = 1; // In plugins.
    };

    void AddPipeline(const std::string& name) {
        const DescriptionPlace listed{keys::kFrameworkGroup, keys::kPipelines};
        if (name.empty()) {
            AddMissingName(listed);
            return;
        }
        if (!pipelineNames_.insert(name).second) {
            AddFault(listed, "Pipeline " + name + " is named twice");
            return;
        }
        if (!RequireGroup(name, listed, "pipeline")) {
            return;
        }
        const DescribedPipeline pipeline = description_.GetPipeline(name);
        if (pipeline.head.empty()) {
            AddMissing({name, keys::kHead});
            return;
        }
        graph_.pipelines_.push_back(pipeline);
        description_.Walk(pipeline, *this);
        const Extent& extent = extents_[pipeline.head];
        if (extent.places > keys::kMostPlaces) {
            AddFault({name, keys::kHead}, keys::kTooManyWays);
        }
        if (extent.longestPath > keys::kLongestPath && !isTooLong_) {
            AddFault({name, keys::kHead}, keys::kTooLong);
        }
    }

    bool Enter(const DescriptionStep& step) override {
        if (step.plugin.empty()) {
            AddMissingName(step.place);
            return false;
        }
        if (!RequireGroup(step.plugin, step.place, "plugin")) {
            return false;
        }
        const bool isNew = extents_.try_emplace(step.plugin).second;
        if (isNew) {
            graph_.plugins_.push_back(description_.FindPlugin(step.plugin));
        }
        return isNew;
    }

    void Leave(const DescriptionStep& step) override {
        Extent& extent = extents_[step.plugin];
        for (const DescribedOutput& output : description_.FindPlugin(step.plugin)->outputs) {
            for (const std::string& successor : output.successors) {
                const auto found = extents_.find(successor);
                if (found != extents_.end()) {
                    extent.places = std::min(extent.places + found->second.places, keys::kMostPlaces + 1);
                    extent.longestPath = std::max(extent.longestPath, found->second.longestPath + 1);
                }
            }
        }
    }

    void OnCycle(const DescriptionStep& step, const std::string& cycle) override {
        AddFault(step.place, "Plugin " + step.plugin + " is its own successor: " + cycle);
    }

    void OnTooLong(const DescriptionStep& step) override {
        isTooLong_ = true;
        AddFault(step.place, keys::kTooLong);
    }

    void AddConnections() {
        std::set<std::tuple<std::string, std::string, std::string>> known;
        for (const DescribedPlugin* plugin : graph_.plugins_) {
            for (const DescribedOutput& output : plugin->outputs) {
                for (const std::string& successor : output.successors) {
                    if (description_.FindPlugin(successor) != nullptr &&
                        known.emplace(plugin->name, output.name, successor).second) {
                        graph_.connections_.push_back(
                            {plugin->name, output.name, successor, {plugin->name, output.key}});
                    }
                }
            }
        }
    }

    bool RequireGroup(const std::string& group, const DescriptionPlace& place, const char* kind) {
        graph_.references_.insert(group);
        const core::IniFile& ini = description_.GetIni();
        if (ini.HasGroup(group)) {
            return true;
        }
        AddFault(place, std::string("Missing configuration group for ") + kind + " " + group +
                            SuggestName(group, ini.GetGroups()));
        return false;
    }

    void AddMissing(const DescriptionPlace& place) {
        AddFault(place, "Missing " + place.key + " setting in " + place.group + " group");
    }

    // Once for each list, however many names are missing there.
    void AddMissingName(const DescriptionPlace& place) {
        if (missingNames_.emplace(place.group, place.key).second) {
            AddFault(place, "A name is missing between the commas of \"" +
                                description_.GetIni().GetValue(place.group, place.key) + '"');
        }
    }

    void AddFault(const DescriptionPlace& place, const std::string& text) {
        graph_.faults_.push_back({place, text});
    }

    DescriptionGraph& graph_;
    const Description& description_;
    std::set<std::string> pipelineNames_;
    std::map<std::string, Extent> extents_; // By plugin, for those entered.
    std::set<std::pair<std::string, std::string>> missingNames_;
    bool isTooLong_ = false;
};

DescriptionGraph::DescriptionGraph(const Description& description) : description_(description) {
    Builder(*this).Build();
}

} // namespace quarn::calvane
