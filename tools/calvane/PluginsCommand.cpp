#include "calvane/PluginsCommand.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "calvane/ExitStatus.h"
#include "calvane/Findings.h"
#include "calvane/SettingsRecorder.h"
#include "calvane/config/ModuleFile.h"
#include "calvane/config/ModuleSearch.h"
#include "calvane/config/NearestName.h"
#include "calvane/config/PluginManager.h"
#include "calvane/graph/PipelinePlugin.h"
#include "calvane/graph/SettingException.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/Logger.h"
#include "quarn/osa/Exception.h"

namespace calvane_program {

namespace {

using Json = nlohmann::ordered_json;
using quarn::calvane::ModuleFile;
using quarn::calvane::PluginManager;

/// Where plugin types come from: the library or a module.
struct Origin {
    std::string module; ///< The file; empty for the library.
    ModuleFile::Version version;
    std::vector<std::string> types;
};

/// The inputs and outputs of a plugin that could be made.
struct Ends {
    std::vector<std::string> inputs;
    std::vector<std::string> outputs; ///< Empty name: the only one, without a name.
};

std::string ToText(const ModuleFile::Version& version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor) + "." +
           std::to_string(version.patch);
}

Origin FindOrigin(const std::string& module) {
    if (module.empty()) {
        return {"",
                {quarn::calvane::kVersionMajor, quarn::calvane::kVersionMinor, quarn::calvane::kVersionPatch},
                PluginManager::GetBuiltinTypes()};
    }
    const ModuleFile file(quarn::calvane::FindModule(module));
    return {file.GetPath(), file.GetVersion(), file.GetTypes()};
}

// Told before anything of the module is loaded.
void RequireType(const Origin& origin, const std::string& type) {
    quarn::calvane::CalvaneEnv::AssertVersionCompatible(origin.module, origin.version.major,
                                                        origin.version.minor, origin.version.patch);
    if (std::find(origin.types.begin(), origin.types.end(), type) == origin.types.end()) {
        throw quarn::osa::Exception((origin.module.empty()
                                         ? "No registered plugin with type "
                                         : "Module " + origin.module + " exports no plugin with type ") +
                                    type + quarn::calvane::SuggestName(type, origin.types));
    }
}

Json StartJson(const Origin& origin) {
    Json json;
    if (!origin.module.empty()) {
        json["module"] = origin.module;
    }
    json["version"] = ToText(origin.version);
    return json;
}

// Names in a module, and what a plugin says, need not be UTF-8.
void Print(const Json& json) {
    std::cout << json.dump(2, ' ', false, Json::error_handler_t::replace) << std::endl;
}

void PrintTypes(const Origin& origin, bool json) {
    if (json) {
        Json all = StartJson(origin);
        all["types"] = origin.types;
        Print(all);
        return;
    }
    const bool isModule = !origin.module.empty();
    if (isModule) {
        std::cout << origin.module << ", built against calvane " << ToText(origin.version) << ":\n";
    }
    for (const std::string& type : origin.types) {
        std::cout << (isModule ? "  " : "") << type << "\n";
    }
    std::cout << std::flush;
}

/// One plugin type, as far as a plugin without settings tells.
class Description {
public:
    Description(const Origin& origin, const std::string& type)
        : origin_(origin), type_(type), settings_(origin.module, type) {
        quarn::core::Logger::SetLevels("off"); // What the plugin logs about its settings is told here.
        failure_ = Make();
        if (!failure_.empty() && origin.module.empty()) {
            // Built-in types that require something require a file, and do nothing with it until they run but
            // open it to read. What the types of modules would do to it nobody knows.
            settings_.AnswerRequired("/dev/null");
            Make();
        }
    }

    void PrintJson() const {
        Json json = StartJson(origin_);
        json["type"] = type_;
        json["inputs"] = ends_ ? Json(ends_->inputs) : Json();
        json["outputs"] = ends_ ? Json(ends_->outputs) : Json();
        json["settings"] = Json::array();
        for (const AskedSetting& setting : settings_.GetSettings()) {
            json["settings"].push_back(
                {{"key", setting.key},
                 {"kind", setting.isInteger ? "integer" : "text"},
                 {"default", setting.isInteger ? Json(setting.number) : Json(setting.text)},
                 {"required", setting.isRequired}});
        }
        json["readsOtherSettings"] = settings_.WereKeysAsked();
        json["failure"] = failure_.empty() ? Json() : Json(failure_);
        Print(json);
    }

    void PrintText() const {
        std::cout << type_ << ", "
                  << (origin_.module.empty() ? "built into" : origin_.module + ", built against")
                  << " calvane " << ToText(origin_.version) << "\n";
        std::cout << "inputs:   " << (ends_ ? Join(ends_->inputs) : "unknown") << "\n";
        std::cout << "outputs:  " << (ends_ ? Join(ends_->outputs) : "unknown") << "\n";
        PrintSettings();
        if (!failure_.empty()) {
            std::cout << "Cannot be made without settings: " << failure_ << "\n";
        }
        std::cout << std::flush;
    }

private:
    /// Makes one plugin; the reason if that fails.
    std::string Make() {
        PluginManager plugins;
        try {
            const quarn::calvane::PluginReference plugin(plugins.CreatePlugin(settings_));
            Inspect(*plugin);
        } catch (const quarn::calvane::SettingException& error) {
            settings_.MarkRequired(error.GetKey());
            return error.what();
        } catch (const std::exception& error) {
            return error.what();
        }
        return {};
    }

    void Inspect(quarn::calvane::PipelinePlugin& plugin) {
        ends_.emplace();
        if (plugin.GetSink() != nullptr) {
            ends_->inputs.emplace_back("default");
        }
        ends_->outputs = plugin.GetOutputNames();
    }

    static std::string Join(const std::vector<std::string>& names) {
        std::string all;
        for (const std::string& name : names) {
            all += (all.empty() ? "" : ", ") + (name.empty() ? std::string("one without a name") : name);
        }
        return all.empty() ? "none" : all;
    }

    void PrintSettings() const {
        size_t width = 0;
        for (const AskedSetting& setting : settings_.GetSettings()) {
            width = std::max(width, setting.key.size());
        }
        std::cout << "settings:" << (width == 0 && !settings_.WereKeysAsked() ? " none\n" : "\n");
        for (const AskedSetting& setting : settings_.GetSettings()) {
            std::cout << "  " << std::left << std::setw(static_cast<int>(width)) << setting.key
                      << (setting.isInteger ? "  integer  " : "  text     ") << DefaultOf(setting) << "\n";
        }
        if (settings_.WereKeysAsked()) {
            std::cout << "  and others, whose names it takes from the description\n";
        }
    }

    static std::string DefaultOf(const AskedSetting& setting) {
        if (setting.isRequired) {
            return "required";
        }
        return setting.isInteger ? std::to_string(setting.number) : '"' + setting.text + '"';
    }

    const Origin& origin_;
    const std::string type_;
    SettingsRecorder settings_;
    std::optional<Ends> ends_; // Unknown when no plugin could be made.
    std::string failure_;
};

} // namespace

int Plugins(const PluginsOptions& options) {
    try {
        const Origin origin = FindOrigin(options.module);
        if (options.type.empty()) {
            PrintTypes(origin, options.json);
            return kDone;
        }
        RequireType(origin, options.type);
        const Description description(origin, options.type);
        if (options.json) {
            description.PrintJson();
        } else {
            description.PrintText();
        }
        return kDone;
    } catch (const std::exception& error) {
        PrintError(std::string("calvane: ") + error.what());
        return kBadInput;
    }
}

} // namespace calvane_program
