#include "drenn/core/Settings.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "quarn/core/Logger.h"
#include "quarn/settings/QuarnSettingsClient.h"

namespace {

using quarn::settings::QuarnSettingsClient;
using quarn::settings::Setting;

QuarnSettingsClient& Client() {
    static auto& client = *new QuarnSettingsClient(nullptr); // Lives on for static destructors.
    return client;
}

bool IsKey(const char* key) {
    return key != nullptr && *key != '\0';
}

/// Runs what works on the settings, and makes a status of what it throws.
template <typename Work>
drenn_status Try(const Work& work) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return DRENN_STATUS_NO_MEMORY;
    } catch (const quarn::settings::SettingTypeException&) {
        return DRENN_STATUS_WRONG_TYPE;
    } catch (const std::exception& problem) {
        quarn::core::Logger::GetLogger("Settings")->Error("%s", problem.what());
        return DRENN_STATUS_STORAGE;
    }
}

bool AreSettings(const drenn_core_int_setting* settings, unsigned int count) {
    return settings != nullptr &&
           std::all_of(settings, settings + count,
                       [](const drenn_core_int_setting& one) { return IsKey(one.key); });
}

std::optional<int> IntOf(const std::optional<Setting>& setting) {
    const auto* const number = setting ? std::get_if<std::int64_t>(&*setting) : nullptr;
    if (number == nullptr || *number < std::numeric_limits<int>::min() ||
        *number > std::numeric_limits<int>::max()) {
        return std::nullopt;
    }
    return static_cast<int>(*number);
}

/// For each key once: settings are read again and again.
void SayThatDefaultCounts(const std::string& key, int value) {
    static std::mutex lock;
    static auto& said = *new std::set<std::string>;
    const std::lock_guard<std::mutex> guard(lock);
    if (said.insert(key).second) {
        quarn::core::Logger::GetLogger("Settings")
            ->Warning("Setting %s is no integer, or too large for one; its default %d counts", key.c_str(),
                      value);
    }
}

drenn_status ReadInt(const std::string& key, const std::optional<Setting>& found, int& value) {
    if (!found) {
        return DRENN_STATUS_UNKNOWN_KEY;
    }
    std::optional<int> number = IntOf(found);
    if (!number) {
        number = IntOf(Client().GetDefault(key));
        if (!number) {
            return DRENN_STATUS_WRONG_TYPE;
        }
        SayThatDefaultCounts(key, *number);
    }
    value = *number;
    return DRENN_STATUS_OK;
}

} // namespace

drenn_status drenn_core_settings_set_default_int_value(const char* key, int value) {
    if (!IsKey(key)) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    return Try([&]() -> drenn_status {
        Client().SetDefault(key, std::int64_t{value});
        return DRENN_STATUS_OK;
    });
}

drenn_status drenn_core_settings_set_default_string_value(const char* key, const char* value) {
    if (!IsKey(key) || value == nullptr) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    return Try([&]() -> drenn_status {
        Client().SetDefault(key, std::string(value));
        return DRENN_STATUS_OK;
    });
}

drenn_status drenn_core_settings_get_int_value(const char* key, int* value) {
    if (value == nullptr) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    drenn_core_int_setting setting{key, *value};
    const drenn_status status = drenn_core_settings_get_int_values(&setting, 1);
    *value = setting.value;
    return status;
}

drenn_status drenn_core_settings_get_int_values(drenn_core_int_setting* settings, unsigned int count) {
    if (!AreSettings(settings, count)) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    return Try([&]() -> drenn_status {
        std::vector<std::string> keys;
        for (unsigned int place = 0; place < count; ++place) {
            keys.emplace_back(settings[place].key);
        }
        std::vector<int> values(count);
        const std::vector<std::optional<Setting>> found = Client().Get(keys);
        for (unsigned int place = 0; place < count; ++place) {
            if (const drenn_status status = ReadInt(keys[place], found[place], values[place])) {
                return status;
            }
        }
        for (unsigned int place = 0; place < count; ++place) {
            settings[place].value = values[place];
        }
        return DRENN_STATUS_OK;
    });
}

drenn_status drenn_core_settings_set_int_values(const drenn_core_int_setting* settings, unsigned int count) {
    if (!AreSettings(settings, count)) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    return Try([&]() -> drenn_status {
        std::map<std::string, Setting> values;
        for (unsigned int place = 0; place < count; ++place) {
            values[settings[place].key] = std::int64_t{settings[place].value};
        }
        Client().Set(values);
        return DRENN_STATUS_OK;
    });
}

drenn_status drenn_core_settings_get_string_value(const char* key, char** value) {
    if (!IsKey(key) || value == nullptr) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    return Try([&]() -> drenn_status {
        const auto found = Client().GetString(key);
        if (!found) {
            return DRENN_STATUS_UNKNOWN_KEY;
        }
        char* const copy = strdup(found->c_str());
        if (copy == nullptr) {
            return DRENN_STATUS_NO_MEMORY;
        }
        *value = copy;
        return DRENN_STATUS_OK;
    });
}

drenn_status drenn_core_settings_set_int_value(const char* key, int value) {
    if (!IsKey(key)) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    return Try([&]() -> drenn_status {
        Client().Set(key, std::int64_t{value});
        return DRENN_STATUS_OK;
    });
}

drenn_status drenn_core_settings_set_string_value(const char* key, const char* value) {
    if (!IsKey(key) || value == nullptr) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    return Try([&]() -> drenn_status {
        Client().Set(key, std::string(value));
        return DRENN_STATUS_OK;
    });
}
