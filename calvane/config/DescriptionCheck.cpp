#include "calvane/config/DescriptionCheck.h"

#include <algorithm>
#include <map>
#include <set>

#include "calvane/config/DescriptionKeys.h"
#include "calvane/config/ModuleFile.h"
#include "calvane/config/ModuleSearch.h"
#include "calvane/config/NearestName.h"
#include "calvane/config/PluginManager.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/Thread.h"

namespace quarn::calvane {

namespace {

using core::StringUtil;

std::string Quote(const std::string& text) {
    return '"' + text + '"';
}

/// Walks a description once and collects what it finds.
class Checker {
public:
    explicit Checker(const core::IniFile& ini) : ini_(ini) {}

    std::vector<DescriptionFinding> Check() {
        used_.insert(keys::kFrameworkGroup);
        if (!ini_.HasGroup(keys::kFrameworkGroup)) {
            Add(0, true, keys::kFrameworkGroup, "", "Missing group [calvane]");
        } else {
            WarnAboutUnknownKeys(keys::kFrameworkGroup, {keys::kPipelines}, "");
            for (const std::string& pipeline : ReadNames(keys::kFrameworkGroup, keys::kPipelines, true)) {
                CheckPipeline(pipeline);
            }
        }
        for (const std::string& group : ini_.GetGroups()) {
            if (used_.count(group) == 0) {
                Warn(group, "", "Nothing refers to this group");
            }
        }
        std::stable_sort(findings_.begin(), findings_.end(),
                         [](const auto& a, const auto& b) { return a.line < b.line; });
        return findings_;
    }

private:
    void CheckPipeline(const std::string& pipeline) {
        if (!pipelines_.insert(pipeline).second) {
            Complain(keys::kFrameworkGroup, keys::kPipelines, "Pipeline " + pipeline + " is named twice");
            return;
        }
        if (!RequireGroup(pipeline, keys::kFrameworkGroup, keys::kPipelines, "pipeline")) {
            return;
        }
        WarnAboutUnknownKeys(pipeline, {keys::kHead, keys::kThreadStackBytes, keys::kThreadPriority}, "");
        CheckNumber<unsigned int>(pipeline, keys::kThreadStackBytes);
        CheckNumber<signed char>(pipeline, keys::kThreadPriority);
        WarnAboutPriority(pipeline);
        const std::string head = ini_.GetValueOrDefault(pipeline, keys::kHead);
        if (head.empty()) {
            Complain(pipeline, keys::kHead,
                     std::string("Missing ") + keys::kHead + " setting in " + pipeline + " group");
            return;
        }
        const auto [other, isNew] = heads_.emplace(head, pipeline);
        if (!isNew) {
            Warn(pipeline, keys::kHead,
                 "Plugin " + head + " also heads pipeline " + other->second + ": two threads would drive it");
        }
        CheckPlugin(head, pipeline, keys::kHead);
        if (places_[head] > keys::kMostPlaces) {
            Complain(pipeline, keys::kHead, keys::kTooManyWays);
        }
    }

    // Each plugin once; one that is met again on the way to itself closes a cycle.
    void CheckPlugin(const std::string& plugin, const std::string& fromGroup, const std::string& fromKey) {
        // A path can be long: it is looked through only for a plugin that was met before.
        const auto onPath =
            plugins_.count(plugin) != 0 ? std::find(path_.begin(), path_.end(), plugin) : path_.end();
        if (onPath != path_.end()) {
            std::string way;
            for (auto step = onPath; step != path_.end(); ++step) {
                way += *step + " -> ";
            }
            Complain(fromGroup, fromKey, "Plugin " + plugin + " is its own successor: " + way + plugin);
            return;
        }
        if (!RequireGroup(plugin, fromGroup, fromKey, "plugin") || !plugins_.insert(plugin).second) {
            return;
        }
        if (path_.size() == keys::kLongestPath) {
            Complain(fromGroup, fromKey, keys::kTooLong);
            return;
        }
        CheckType(plugin);
        WarnAboutUnknownKeys(plugin, {keys::kPluginType, keys::kPluginModule, keys::kNext},
                             keys::kFrameworkPrefix);
        path_.push_back(plugin);
        unsigned int places = 1;
        for (const auto& entry : ini_[plugin]) {
            if (entry.first == keys::kNext || StringUtil::StartsWith(entry.first, keys::kNextPrefix)) {
                for (const std::string& successor : ReadNames(plugin, entry.first, false)) {
                    CheckPlugin(successor, plugin, entry.first);
                    places = std::min(places + places_[successor], keys::kMostPlaces + 1);
                }
            }
        }
        places_[plugin] = places;
        path_.pop_back();
    }

    void CheckType(const std::string& plugin) {
        const std::string type = ini_.GetValueOrDefault(plugin, keys::kPluginType);
        const std::string module = ini_.GetValueOrDefault(plugin, keys::kPluginModule);
        if (type.empty()) {
            Complain(plugin, keys::kPluginType,
                     std::string("Missing ") + keys::kPluginType + " setting for plugin " + plugin);
        } else if (module.empty()) {
            RequireType(plugin, type, PluginManager::GetBuiltinTypes(), "No registered plugin with type ");
        }
        if (!module.empty()) {
            CheckModule(plugin, module, type);
        }
    }

    // As far as its file tells.
    void CheckModule(const std::string& plugin, const std::string& module, const std::string& type) {
        try {
            const std::string path = FindModule(module);
            const ModuleFile& file = modules_.try_emplace(path, path).first->second;
            const ModuleFile::Version& version = file.GetVersion();
            CalvaneEnv::AssertVersionCompatible(file.GetPath(), version.major, version.minor, version.patch);
            if (!type.empty()) {
                RequireType(plugin, type, file.GetTypes(),
                            "Module " + file.GetPath() + " exports no plugin with type ");
            }
        } catch (const osa::Exception& error) {
            Complain(plugin, keys::kPluginModule, error.what());
        }
    }

    void RequireType(const std::string& plugin, const std::string& type,
                     const std::vector<std::string>& types, const std::string& complaint) {
        if (std::find(types.begin(), types.end(), type) == types.end()) {
            Complain(plugin, keys::kPluginType, complaint + type + SuggestName(type, types));
        }
    }

    template <typename Number>
    void CheckNumber(const std::string& pipeline, const char* key) {
        Number number{};
        if (ini_.HasValue(pipeline, key) && !StringUtil::TryParse(ini_.GetValue(pipeline, key), number)) {
            Complain(pipeline, key,
                     "Invalid value of " + Quote(ini_.GetValue(pipeline, key)) + " for setting " + key +
                         " in pipeline " + pipeline);
        }
    }

    void WarnAboutPriority(const std::string& pipeline) {
        signed char priority = 0;
        if (StringUtil::TryParse(ini_.GetValueOrDefault(pipeline, keys::kThreadPriority), priority) &&
            (priority < osa::Thread::kMostUrgentPriority || priority > osa::Thread::kLeastUrgentPriority)) {
            Warn(pipeline, keys::kThreadPriority, "There is no such priority; the thread runs without it");
        }
    }

    /// The names that a value lists. Empty ones are complained about and left out.
    std::vector<std::string> ReadNames(const std::string& group, const std::string& key, bool required) {
        const std::string value = ini_.GetValueOrDefault(group, key);
        if (value.empty()) {
            if (required) {
                Complain(group, key, "Missing " + key + " setting in " + group + " group");
            }
            return {};
        }
        std::vector<std::string> names = StringUtil::Split(value, ',');
        const auto end = std::remove(names.begin(), names.end(), std::string());
        if (end != names.end()) {
            Complain(group, key, "A name is missing between the commas of " + Quote(value));
            names.erase(end, names.end());
        }
        return names;
    }

    bool RequireGroup(const std::string& group, const std::string& fromGroup, const std::string& fromKey,
                      const char* kind) {
        used_.insert(group);
        if (ini_.HasGroup(group)) {
            return true;
        }
        Complain(fromGroup, fromKey,
                 std::string("Missing configuration group for ") + kind + " " + group +
                     SuggestName(group, ini_.GetGroups()));
        return false;
    }

    // Keys of `group` that start with `prefix` and are none of `known`.
    void WarnAboutUnknownKeys(const std::string& group, const std::vector<std::string>& known,
                              const std::string& prefix) {
        for (const auto& entry : ini_[group]) {
            const std::string& key = entry.first;
            const bool isKnown = std::find(known.begin(), known.end(), key) != known.end() ||
                                 (!prefix.empty() && StringUtil::StartsWith(key, keys::kNextPrefix));
            if (!isKnown && StringUtil::StartsWith(key, prefix)) {
                Warn(group, key, "Setting " + key + " is unknown" + SuggestName(key, known));
            }
        }
    }

    void Complain(const std::string& group, const std::string& key, const std::string& text) {
        Add(LineOf(group, key), true, group, key, text);
    }
    void Warn(const std::string& group, const std::string& key, const std::string& text) {
        Add(LineOf(group, key), false, group, key, text);
    }
    void Add(unsigned int line, bool isError, const std::string& group, const std::string& key,
             const std::string& text) {
        findings_.push_back({line, isError, group, key, text});
    }

    unsigned int LineOf(const std::string& group, const std::string& key) const {
        const unsigned int line = ini_.GetKeyLine(group, key);
        return line != 0 ? line : ini_.GetGroupLine(group);
    }

    const core::IniFile& ini_;
    std::vector<DescriptionFinding> findings_;
    std::set<std::string> used_;
    std::set<std::string> pipelines_;
    std::set<std::string> plugins_;
    std::map<std::string, std::string> heads_;   // The head's name, then the first pipeline that names it.
    std::map<std::string, unsigned int> places_; // That a plugin and all behind it take in a pipeline.
    std::vector<std::string> path_;
    std::map<std::string, ModuleFile> modules_; // Those read so far, by path.
};

} // namespace

std::vector<DescriptionFinding> CheckDescription(const core::IniFile& ini) {
    return Checker(ini).Check();
}

} // namespace quarn::calvane
