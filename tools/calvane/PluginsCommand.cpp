#include <algorithm>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "Commands.h"
#include "calvane/config/ModuleSearch.h"
#include "calvane/config/PluginManager.h"
#include "calvane/config/PluginTypes.h"
#include "calvane/graph/PipelinePlugin.h"
#include "calvane/graph/SettingException.h"
#include "calvane/testing/SettingsRecorder.h"
#include "command_line/ExitStatus.h"
#include "pipelines/CheckedDescription.h"
#include "quarn/core/Logger.h"
#include "quarn/osa/Exception.h"

namespace calvane_program {

namespace {

using Json = nlohmann::ordered_json;
using quarn::calvane::ModuleFile;
using quarn::calvane::PluginDeclaration;
using quarn::calvane::PluginThreading;
using quarn::calvane::PluginTypeOrigin;
using quarn::calvane::PluginTypes;
using quarn::calvane::SettingDeclaration;
using quarn::calvane::SettingKind;

std::string ToText(const ModuleFile::Version& version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor) + "." +
           std::to_string(version.patch);
}

std::string ToText(PluginThreading threading) {
    switch (threading) {
        case PluginThreading::One:
            return "one may call it";
        case PluginThreading::Any:
            return "any number may call it";
        case PluginThreading::Own:
            return "any number may call it; what follows runs on its own";
    }
    return {};
}

// Names in a module, and what a plugin says, need not be UTF-8.
void Print(const Json& json) {
    std::cout << json.dump(2, ' ', false, Json::error_handler_t::replace) << std::endl;
}

/// The line about a type, or an empty text when it declares nothing.
std::string FindSummary(PluginTypes& types, const PluginTypeOrigin& origin, const std::string& type) {
    const PluginDeclaration* const declaration = types.FindDeclaration(origin.module, type);
    return declaration != nullptr ? declaration->summary : "";
}

Json ToJson(PluginTypes& types, const PluginTypeOrigin& origin) {
    Json json;
    if (!origin.module.empty()) {
        json["module"] = origin.module;
    }
    json["version"] = ToText(origin.version);
    json["types"] = origin.types;
    json["summaries"] = Json::object();
    for (const std::string& type : origin.types) {
        json["summaries"][type] = FindSummary(types, origin, type);
    }
    return json;
}

void PrintTypes(PluginTypes& types, const PluginTypeOrigin& origin, size_t width) {
    std::cout << (origin.module.empty() ? "Built into" : origin.module + ", built against") << " calvane "
              << ToText(origin.version) << ":\n";
    for (const std::string& type : origin.types) {
        const std::string summary = FindSummary(types, origin, type);
        std::cout << "  " << std::left << std::setw(summary.empty() ? 0 : static_cast<int>(width)) << type
                  << (summary.empty() ? "" : "  " + summary) << "\n";
    }
}

/// The origins to list: `module`, or the library and every module on the module path. What cannot be read is named
/// on the standard error stream.
std::vector<const PluginTypeOrigin*> FindOrigins(PluginTypes& types, const std::string& module) {
    if (!module.empty()) {
        return {&types.GetOrigin(module)};
    }
    std::vector<const PluginTypeOrigin*> origins{&types.GetOrigin("")};
    for (const std::string& file : quarn::calvane::FindModules()) {
        try {
            types.RequireVersion(file);
            origins.push_back(&types.GetOrigin(file));
        } catch (const quarn::osa::Exception& error) {
            PrintError(std::string("calvane: warning: ") + error.what());
        }
    }
    return origins;
}

void List(PluginTypes& types, const PluginsOptions& options) {
    const std::vector<const PluginTypeOrigin*> origins = FindOrigins(types, options.module);
    if (options.json) {
        Json json = ToJson(types, *origins.front());
        if (options.module.empty()) {
            json["modules"] = Json::array();
            for (auto origin = origins.begin() + 1; origin != origins.end(); ++origin) {
                json["modules"].push_back(ToJson(types, **origin));
            }
        }
        Print(json);
        return;
    }
    size_t width = 0;
    for (const PluginTypeOrigin* origin : origins) {
        for (const std::string& type : origin->types) {
            width = std::max(width, type.size());
        }
    }
    for (const PluginTypeOrigin* origin : origins) {
        PrintTypes(types, *origin, width);
    }
    std::cout << std::flush;
}

/// What is known of one plugin type: what it declares, or what one plugin of it, made without settings, tells.
class TypeReport {
public:
    TypeReport(const PluginTypeOrigin& origin, const PluginDeclaration& declaration)
        : origin_(origin), declaration_(declaration), isDeclared_(true) {}

    TypeReport(const PluginTypeOrigin& origin, const std::string& type) : origin_(origin) {
        declaration_.type = type;
        quarn::core::Logger::SetLevels("off"); // What the plugin logs about its settings is printed here.
        quarn::calvane::testkit::SettingsRecorder settings(origin.module, type);
        Make(settings);
        for (const auto& asked : settings.GetSettings()) {
            SettingDeclaration setting;
            setting.key = asked.key;
            setting.kind = asked.isInteger ? SettingKind::Integer : SettingKind::Text;
            setting.isRequired = asked.isRequired;
            setting.defaultValue = asked.defaultValue;
            declaration_.settings.push_back(setting);
        }
        readsOtherSettings_ = settings.WereKeysAsked();
    }

    void PrintJson() const {
        Json json;
        if (!origin_.module.empty()) {
            json["module"] = origin_.module;
        }
        json["version"] = ToText(origin_.version);
        json["type"] = declaration_.type;
        json["declared"] = isDeclared_;
        json["summary"] = declaration_.summary;
        json["inputs"] = areEndsKnown_ ? Json(declaration_.inputs) : Json();
        json["outputs"] = areEndsKnown_ ? Json(declaration_.outputs) : Json();
        json["settings"] = Json::array();
        for (const SettingDeclaration& setting : declaration_.settings) {
            json["settings"].push_back(ToJson(setting));
        }
        json["readsOtherSettings"] = readsOtherSettings_;
        json["failure"] = failure_.empty() ? Json() : Json(failure_);
        Print(json);
    }

    void PrintText() const {
        std::cout << declaration_.type << ", "
                  << (origin_.module.empty() ? "built into" : origin_.module + ", built against")
                  << " calvane " << ToText(origin_.version) << "\n";
        if (isDeclared_) {
            std::cout << declaration_.summary << ".\n";
        }
        std::cout << "inputs:   " << Join(declaration_.inputs) << "\noutputs:  " << Join(declaration_.outputs)
                  << "\n";
        if (isDeclared_) {
            std::cout << "threads:  " << ToText(declaration_.threading) << "\n";
        }
        PrintSettings();
        if (!failure_.empty()) {
            std::cout << "Cannot be made without settings: " << failure_ << "\n";
        }
        std::cout << std::flush;
    }

private:
    /// Makes one plugin, or finds out why that fails.
    void Make(quarn::calvane::testkit::SettingsRecorder& settings) {
        quarn::calvane::PluginManager plugins;
        areEndsKnown_ = false;
        try {
            const quarn::calvane::PluginReference plugin(plugins.CreatePlugin(settings));
            if (plugin->GetSink() != nullptr) {
                declaration_.inputs.emplace_back("default");
            }
            declaration_.outputs = plugin->GetOutputNames();
            areEndsKnown_ = true;
        } catch (const quarn::calvane::SettingException& error) {
            settings.MarkRequired(error.GetKey());
            failure_ = error.what();
        } catch (const std::exception& error) {
            failure_ = error.what();
        }
    }

    static Json ToJson(const SettingDeclaration& setting) {
        const bool isNumber = setting.kind == SettingKind::Integer || setting.kind == SettingKind::Flag;
        const auto number = isNumber ? quarn::calvane::ParseInteger(setting.defaultValue) : std::nullopt;
        Json json{{"key", setting.key},
                  {"kind", ToText(setting.kind)},
                  {"default", number ? Json(*number) : Json(setting.defaultValue)},
                  {"required", setting.isRequired}};
        if (!setting.unit.empty()) {
            json["unit"] = setting.unit;
        }
        if (setting.hasRange) {
            json["range"] = {setting.least, setting.most};
        }
        if (!setting.choices.empty()) {
            json["choices"] = setting.choices;
        }
        if (!setting.summary.empty()) {
            json["summary"] = setting.summary;
        }
        return json;
    }

    std::string Join(const std::vector<std::string>& names) const {
        std::string all;
        for (const std::string& name : names) {
            all += (all.empty() ? "" : ", ") + (name.empty() ? std::string("one without a name") : name);
        }
        return !areEndsKnown_ ? "unknown" : all.empty() ? "none" : all;
    }

    void PrintSettings() const {
        std::vector<std::array<std::string, 5>> rows;
        std::array<size_t, 5> widths{};
        for (const SettingDeclaration& setting : declaration_.settings) {
            rows.push_back(
                {setting.key, ToText(setting.kind), DefaultOf(setting), RangeOf(setting), setting.summary});
            for (size_t column = 0; column != widths.size(); ++column) {
                widths[column] = std::max(widths[column], rows.back()[column].size());
            }
        }
        std::cout << "settings:" << (rows.empty() && !readsOtherSettings_ ? " none\n" : "\n");
        for (const auto& row : rows) {
            std::string line = "  ";
            for (size_t column = 0; column != row.size(); ++column) {
                line += row[column] +
                        std::string(widths[column] == 0 ? 0 : widths[column] - row[column].size() + 2, ' ');
            }
            std::cout << line.substr(0, line.find_last_not_of(' ') + 1) << "\n";
        }
        if (readsOtherSettings_) {
            std::cout << "  and others, whose names it takes from the description\n";
        }
    }

    static std::string DefaultOf(const SettingDeclaration& setting) {
        if (setting.isRequired) {
            return "required";
        }
        const bool isText = setting.kind == SettingKind::Text || setting.kind == SettingKind::Path;
        return isText ? '"' + setting.defaultValue + '"' : setting.defaultValue;
    }

    static std::string RangeOf(const SettingDeclaration& setting) {
        std::string range;
        for (const std::string& choice : setting.choices) {
            range += (range.empty() ? "" : ", ") + choice;
        }
        const bool isLimited = setting.hasRange && (setting.least != kLeastInt || setting.most != kMostInt);
        if (isLimited && setting.most == kMostInt) {
            range = "from " + std::to_string(setting.least);
        } else if (isLimited) {
            range = std::to_string(setting.least) + " to " + std::to_string(setting.most);
        }
        return range + (range.empty() || setting.unit.empty() ? "" : " ") + setting.unit;
    }

    static constexpr long long kLeastInt = std::numeric_limits<int>::min();
    static constexpr long long kMostInt = std::numeric_limits<int>::max();

    const PluginTypeOrigin& origin_;
    PluginDeclaration declaration_;
    bool isDeclared_ = false;
    bool areEndsKnown_ = true; // Otherwise no plugin could be made.
    bool readsOtherSettings_ = false;
    std::string failure_;
};

} // namespace

int Plugins(const PluginsOptions& options) {
    try {
        PluginTypes types;
        if (options.type.empty()) {
            List(types, options);
            return kDone;
        }
        const PluginDeclaration* const declaration = types.FindDeclaration(options.module, options.type);
        const PluginTypeOrigin& origin = types.GetOrigin(options.module);
        const TypeReport report =
            declaration != nullptr ? TypeReport(origin, *declaration) : TypeReport(origin, options.type);
        if (options.json) {
            report.PrintJson();
        } else {
            report.PrintText();
        }
        return kDone;
    } catch (const std::exception& error) {
        PrintError(std::string("calvane: ") + error.what());
        return kBadInput;
    }
}

} // namespace calvane_program
