#include "drenn/core/Settings.h"

#include <cstring>
#include <limits>
#include <new>

#include "quarn/core/Logger.h"
#include "quarn/settings/QuarnSettingsClient.h"

namespace {

using quarn::settings::QuarnSettingsClient;

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
    if (!IsKey(key) || value == nullptr) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    return Try([&]() -> drenn_status {
        const auto found = Client().GetInt(key);
        if (!found) {
            return DRENN_STATUS_UNKNOWN_KEY;
        }
        if (*found < std::numeric_limits<int>::min() || *found > std::numeric_limits<int>::max()) {
            return DRENN_STATUS_WRONG_TYPE;
        }
        *value = static_cast<int>(*found);
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
