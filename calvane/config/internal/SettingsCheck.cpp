#include "calvane/config/internal/SettingsCheck.h"

#include "quarn/core/IniFile.h"

namespace quarn::calvane {

namespace {

/// The value of an integer setting of a plugin, or its default; nothing when it is no number.
std::optional<long long> ReadInteger(const DescribedPlugin& plugin, const PluginDeclaration& declaration,
                                     const core::IniFile& ini, const std::string& key) {
    if (ini.HasValue(plugin.name, key)) {
        return ParseInteger(ini.GetValue(plugin.name, key));
    }
    const SettingDeclaration* const setting = declaration.FindSetting(key);
    return setting != nullptr ? ParseInteger(setting->defaultValue) : std::nullopt;
}

bool IsExceeded(const ProductLimit& limit, const DescribedPlugin& plugin,
                const PluginDeclaration& declaration, const core::IniFile& ini) {
    long long product = 1;
    for (const ProductLimit::Factor& factor : limit.factors) {
        const std::optional<long long> value = ReadInteger(plugin, declaration, ini, factor.key);
        if (!value || *value <= 0) {
            return false; // A fault by itself.
        }
        if (__builtin_mul_overflow(product, (*value - 1) / factor.unit + 1, &product)) {
            return true;
        }
    }
    return product > limit.most;
}

} // namespace

std::vector<DescriptionFault> FindSettingFaults(const DescribedPlugin& plugin,
                                                const PluginDeclaration& declaration,
                                                const core::IniFile& ini) {
    std::vector<DescriptionFault> faults;
    for (const SettingDeclaration& setting : declaration.settings) {
        if (setting.isRequired && ini.GetValueOrDefault(plugin.name, setting.key).empty()) {
            faults.push_back({{plugin.name, setting.key},
                              "Missing " + setting.key + " setting for plugin " + plugin.name});
        }
    }
    for (const std::string& key : plugin.settings) {
        const SettingDeclaration* const setting = declaration.FindSetting(key);
        const std::string& value = ini.GetValue(plugin.name, key);
        if (setting == nullptr || (setting->isRequired && value.empty())) {
            continue;
        }
        const std::string fault = PluginDeclaration::FindFault(*setting, value);
        if (!fault.empty()) {
            faults.push_back({{plugin.name, key}, fault});
        }
    }
    for (const ProductLimit& limit : declaration.limits) {
        if (IsExceeded(limit, plugin, declaration, ini)) {
            faults.push_back({{plugin.name, limit.factors.back().key}, limit.fault});
        }
    }
    return faults;
}

} // namespace quarn::calvane
