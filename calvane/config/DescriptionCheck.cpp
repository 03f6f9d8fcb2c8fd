#include "calvane/config/DescriptionCheck.h"

#include <algorithm>
#include <map>
#include <set>

#include "calvane/config/DescriptionGraph.h"
#include "calvane/config/DescriptionKeys.h"
#include "calvane/config/NearestName.h"
#include "calvane/config/PipelineThreads.h"
#include "calvane/config/PluginTypes.h"
#include "calvane/config/internal/SettingsCheck.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/Thread.h"

namespace quarn::calvane {

namespace {

using core::StringUtil;

class Checker {
public:
    Checker(const DescriptionGraph& graph, PluginTypes& types)
        : graph_(graph), description_(graph.GetDescription()), ini_(description_.GetIni()), types_(types) {}

    std::vector<DescriptionDiagnostic> Check() {
        for (const DescriptionFault& fault : graph_.GetFaults()) {
            Complain(fault.place, fault.text);
        }
        for (const std::string& name : description_.GetPipelineNames()) {
            if (ini_.HasGroup(name) && knownKeys_.count(name) == 0) {
                CheckThreadSettings(name);
            }
        }
        for (const DescribedPlugin* plugin : graph_.GetPlugins()) {
            CheckPlugin(*plugin);
        }
        CheckHeads();
        CheckConnections();
        CheckThreads();
        WarnAboutGroupsAndKeys();
        std::stable_sort(diagnostics_.begin(), diagnostics_.end(),
                         [](const auto& a, const auto& b) { return a.line < b.line; });
        return diagnostics_;
    }

private:
    void CheckThreadSettings(const std::string& pipeline) {
        knownKeys_[pipeline] = {keys::kHead, keys::kThreadStackBytes, keys::kThreadPriority};
        CheckNumber<unsigned int>({pipeline, keys::kThreadStackBytes});
        CheckNumber<signed char>({pipeline, keys::kThreadPriority});
        signed char priority = 0;
        if (StringUtil::TryParse(ini_.GetValueOrDefault(pipeline, keys::kThreadPriority), priority) &&
            (priority < osa::Thread::kMostUrgentPriority || priority > osa::Thread::kLeastUrgentPriority)) {
            Warn({pipeline, keys::kThreadPriority}, "There is no such priority; the thread runs without it");
        }
    }

    template <typename Number>
    void CheckNumber(const DescriptionPlace& place) {
        Number number{};
        const std::string value = ini_.GetValueOrDefault(place.group, place.key);
        if (ini_.HasValue(place.group, place.key) && !StringUtil::TryParse(value, number)) {
            Complain(place, "Invalid value of \"" + value + "\" for setting " + place.key + " in pipeline " +
                                place.group);
        }
    }

    void CheckPlugin(const DescribedPlugin& plugin) {
        std::vector<std::string>& known = knownKeys_[plugin.name];
        known.insert(known.end(), {keys::kPluginType, keys::kPluginModule, keys::kNext});
        const PluginDeclaration* const declaration = FindDeclaration(plugin);
        if (declaration == nullptr) {
            anyKeys_.insert(plugin.name);
            return;
        }
        declarations_[plugin.name] = declaration;
        threads_.SetThreading(plugin.name, declaration->threading);
        for (const SettingDeclaration& setting : declaration->settings) {
            known.push_back(setting.key);
        }
        for (const DescriptionFault& fault : FindSettingFaults(plugin, *declaration, ini_)) {
            Complain(fault.place, fault.text);
        }
    }

    /// Null when the type is not known, or declares nothing.
    const PluginDeclaration* FindDeclaration(const DescribedPlugin& plugin) {
        if (plugin.type.empty()) {
            Complain({plugin.name, keys::kPluginType},
                     std::string("Missing ") + keys::kPluginType + " setting for plugin " + plugin.name);
        }
        try {
            types_.RequireVersion(plugin.module);
        } catch (const osa::Exception& error) {
            Complain({plugin.name, keys::kPluginModule}, error.what());
            return nullptr;
        }
        try {
            return plugin.type.empty() ? nullptr : types_.FindDeclaration(plugin.module, plugin.type);
        } catch (const osa::Exception& error) {
            Complain({plugin.name, keys::kPluginType}, error.what());
            return nullptr;
        }
    }

    void CheckHeads() {
        for (const DescribedPipeline& pipeline : graph_.GetPipelines()) {
            threads_.AddPipeline(pipeline.name, pipeline.head);
            const PluginDeclaration* const head = GetDeclaration(pipeline.head);
            if (head != nullptr && !head->generates) {
                Complain({pipeline.name, keys::kHead}, "Plugin " + pipeline.head + " of type " + head->type +
                                                           " generates no buffers and cannot be a head");
            }
        }
    }

    void CheckConnections() {
        std::set<std::pair<std::string, std::string>> complained; // Groups and keys of outputs.
        for (const DescriptionGraph::Connection& connection : graph_.GetConnections()) {
            threads_.AddConnection(connection.from, connection.to);
            const PluginDeclaration* const from = GetDeclaration(connection.from);
            if (from != nullptr && !from->HasOutput(connection.output) &&
                complained.emplace(connection.place.group, connection.place.key).second) {
                Complain(connection.place,
                         "Plugin " + connection.from + " of type " + from->type + " has no output " +
                             (connection.output.empty() ? "without a name" : "named " + connection.output) +
                             SuggestName(connection.output, from->outputs) + "; it has " +
                             from->DescribeOutputs());
            }
            const PluginDeclaration* const to = GetDeclaration(connection.to);
            if (to != nullptr && to->inputs.empty()) {
                Complain(connection.place, "Plugin " + connection.to + " of type " + to->type +
                                               " has no input and cannot follow " + connection.from);
            }
        }
    }

    void CheckThreads() {
        const auto conflict = threads_.FindConflict();
        if (!conflict.first.empty()) {
            Complain({conflict.first, ""}, PipelineThreads::DescribeConflict(conflict));
        }
    }

    void WarnAboutGroupsAndKeys() {
        knownKeys_[keys::kFrameworkGroup] = {keys::kPipelines};
        for (const std::string& group : ini_.GetGroups()) {
            if (graph_.GetReferences().count(group) == 0) {
                Warn({group, ""}, "Nothing refers to this group");
            } else if (const auto known = knownKeys_.find(group); known != knownKeys_.end()) {
                WarnAboutKeys(group, known->second);
            }
        }
    }

    void WarnAboutKeys(const std::string& group, const std::vector<std::string>& known) {
        const PluginDeclaration* const declaration = GetDeclaration(group);
        const bool isPlugin = declaration != nullptr || anyKeys_.count(group) != 0;
        for (const auto& entry : ini_[group]) {
            const std::string& key = entry.first;
            const bool isFrameworks = StringUtil::StartsWith(key, keys::kFrameworkPrefix);
            const bool isKnown =
                std::find(known.begin(), known.end(), key) != known.end() ||
                (isPlugin && StringUtil::StartsWith(key, keys::kNextPrefix)) ||
                (!isFrameworks && anyKeys_.count(group) != 0) ||
                (!isFrameworks && declaration != nullptr && declaration->FindSetting(key) != nullptr);
            if (!isKnown) {
                Warn({group, key}, "Setting " + key + " is unknown" + SuggestName(key, known));
            }
        }
    }

    const PluginDeclaration* GetDeclaration(const std::string& plugin) const {
        const auto found = declarations_.find(plugin);
        return found != declarations_.end() ? found->second : nullptr;
    }

    void Complain(const DescriptionPlace& place, const std::string& text) {
        diagnostics_.push_back({description_.GetLine(place), true, place.group, place.key, text});
    }
    void Warn(const DescriptionPlace& place, const std::string& text) {
        diagnostics_.push_back({description_.GetLine(place), false, place.group, place.key, text});
    }

    const DescriptionGraph& graph_;
    const Description& description_;
    const core::IniFile& ini_;
    PluginTypes& types_;
    PipelineThreads threads_;
    std::map<std::string, const PluginDeclaration*> declarations_; // By plugin.
    std::map<std::string, std::vector<std::string>> knownKeys_;    // By group.
    std::set<std::string> anyKeys_; // Plugins whose own settings nobody declares.
    std::vector<DescriptionDiagnostic> diagnostics_;
};

} // namespace

std::vector<DescriptionDiagnostic> CheckDescription(const core::IniFile& ini) {
    const Description description(ini);
    PluginTypes types;
    return CheckDescription(DescriptionGraph(description), types);
}

std::vector<DescriptionDiagnostic> CheckDescription(const DescriptionGraph& graph, PluginTypes& types) {
    return Checker(graph, types).Check();
}

} // namespace quarn::calvane
