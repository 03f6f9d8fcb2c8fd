#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "drenn/api/DeviceInformation.h"
#include "drenn/core/Logging.h"
#include "drenn/core/Settings.h"
#include "quarn/core/LogCapture.h"
#include "quarn/settings/QuarnSettingsClient.h"
#include "support/TempFolder.h"

extern "C" {
drenn_status log_from_c(const char* name, const char* text, int number);
int count_in_settings_from_c(const char* key);
int is_device_known_to_c(void);
}

namespace {

using quarn::core::LogCapture;
using quarn::core::LogLevel;

// The process's one settings database is chosen at the first call.
const TempFolder& SettingsFolder() {
    static const TempFolder* const folder = [] {
        auto* made = new TempFolder; // The process is one test; its folder is left to the system.
        setenv("DRENN_SETTINGS", made->Path("etc/settings.db").c_str(), 1);
        return made;
    }();
    return *folder;
}

TEST(CInterfaceTest, LogsFromCWithTheLevelsOfAllLoggers) {
    const LogCapture capture(LogLevel::Information);
    EXPECT_EQ(log_from_c("FromC", "answer", 42), DRENN_STATUS_OK);
    ASSERT_EQ(capture.GetLines().size(), 1U);
    EXPECT_EQ(capture.GetLines()[0].logger, "FromC");
    EXPECT_EQ(capture.GetLines()[0].text, "answer 42");
    EXPECT_EQ(log_from_c("", "no name", 0), DRENN_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(log_from_c(nullptr, "no name", 0), DRENN_STATUS_INVALID_ARGUMENT);
    drenn_core_log(nullptr, DRENN_CORE_LOG_ERROR, "no handle");
    EXPECT_EQ(capture.GetLines().size(), 1U);
}

TEST(CInterfaceTest, PrioritiesPassByTheirSyslogNumber) {
    void* cookie = nullptr;
    ASSERT_EQ(drenn_core_logging_init("Priorities", &cookie), DRENN_STATUS_OK);
    const auto passing = [&] {
        std::string result;
        for (int priority = 0; priority <= 7; ++priority) {
            result +=
                drenn_core_log_enabled(cookie, static_cast<drenn_core_log_priority>(priority)) ? '1' : '0';
        }
        return result;
    };
    for (const auto& [level, expected] : {std::pair{LogLevel::Off, "00000000"},
                                          {LogLevel::Error, "11110000"},
                                          {LogLevel::Warning, "11111000"},
                                          {LogLevel::Information, "11111110"},
                                          {LogLevel::Debug, "11111111"}}) {
        const LogCapture capture(level);
        EXPECT_EQ(passing(), expected);
    }
}

TEST(CInterfaceTest, SettingsKeepWhatWasSetOverDefaults) {
    SettingsFolder();
    int number = -7;
    EXPECT_EQ(drenn_core_settings_get_int_value("c.unknown", &number), DRENN_STATUS_UNKNOWN_KEY);
    EXPECT_EQ(number, -7);
    EXPECT_EQ(count_in_settings_from_c("c.count"), 42);
    EXPECT_EQ(count_in_settings_from_c("c.count"), 43) << "the default was written over the value";

    char* text = nullptr;
    EXPECT_EQ(drenn_core_settings_get_string_value("c.count", &text), DRENN_STATUS_WRONG_TYPE);
    EXPECT_EQ(drenn_core_settings_set_string_value("c.count", "many\n\xC3\xA4"), DRENN_STATUS_OK);
    ASSERT_EQ(drenn_core_settings_get_string_value("c.count", &text), DRENN_STATUS_OK);
    EXPECT_STREQ(text, "many\n\xC3\xA4");
    free(text);
    // What is no integer gives way to a default that is one.
    const LogCapture capture(LogLevel::Warning);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(drenn_core_settings_get_int_value("c.count", &number), DRENN_STATUS_OK);
        EXPECT_EQ(std::exchange(number, 0), 41);
    }
    EXPECT_EQ(capture.Count("Setting c.count is no integer, or too large for one; its default 41 counts"),
              1U);
    drenn_core_int_setting both[] = {{"c.first", 1}, {"c.second", 2}};
    EXPECT_EQ(drenn_core_settings_set_int_values(both, 2), DRENN_STATUS_OK);
    both[0] = {"c.second", 0};
    both[1] = {"c.wide", 7};
    EXPECT_EQ(drenn_core_settings_get_int_values(both, 2), DRENN_STATUS_UNKNOWN_KEY);
    EXPECT_EQ(both[0].value + both[1].value, 7) << "half of it was read";
    both[1].key = "c.first";
    EXPECT_EQ(drenn_core_settings_get_int_values(both, 2), DRENN_STATUS_OK);
    EXPECT_EQ(both[0].value * 10 + both[1].value, 21);
    both[0].key = "";
    EXPECT_EQ(drenn_core_settings_set_int_values(both, 2), DRENN_STATUS_INVALID_ARGUMENT);

    quarn::settings::QuarnSettingsClient(nullptr).Set("c.wide", std::int64_t{1} << 40);
    EXPECT_EQ(drenn_core_settings_get_int_value("c.wide", &number), DRENN_STATUS_WRONG_TYPE);
    EXPECT_EQ(drenn_core_settings_set_int_value("", 1), DRENN_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(drenn_core_settings_set_string_value("c.null", nullptr), DRENN_STATUS_INVALID_ARGUMENT);
    EXPECT_TRUE(SettingsFolder().Has("etc/settings.db"));
    EXPECT_STREQ(drenn_status_text(DRENN_STATUS_UNKNOWN_KEY), "unknown setting without default");
    EXPECT_STREQ(drenn_status_text(12345), "unknown status");
}

TEST(CInterfaceTest, DeviceInformationChecksWhatItIsGiven) {
    const TempFolder folder;
    setenv("DRENN_DEVICE_INFORMATION", folder.Write("device.ini", "[device]\nmodel.name = Camera\n").c_str(),
           1);
    EXPECT_GE(is_device_known_to_c(), 3) << "the model, the host's name and its architecture at least";

    drenn_api_device_information_cookie cookie = nullptr;
    ASSERT_EQ(drenn_api_device_information_initiator_init(nullptr, &cookie, 0, nullptr), DRENN_STATUS_OK);
    char* fact = nullptr;
    const auto ask = [&](const char* service) {
        return drenn_api_device_information_get_all_send(cookie, service, &fact, &fact, &fact, &fact, &fact,
                                                         &fact, &fact, &fact, &fact, &fact);
    };
    EXPECT_EQ(ask("toaster_information"), DRENN_STATUS_UNKNOWN_SERVICE);
    const LogCapture capture;
    folder.Write("device.ini", "model.name = before any group\n");
    EXPECT_EQ(ask("device_information"), DRENN_STATUS_BAD_FILE);
    EXPECT_EQ(fact, nullptr);
    EXPECT_EQ(capture.GetLines().size(), 1U);
    EXPECT_EQ(drenn_api_device_information_initiator_deinit(cookie), DRENN_STATUS_OK);
    EXPECT_EQ(drenn_api_device_information_initiator_deinit(nullptr), DRENN_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(drenn_api_device_information_initiator_init("tcp:", &cookie, 0, nullptr),
              DRENN_STATUS_INVALID_ARGUMENT);
}

} // namespace
