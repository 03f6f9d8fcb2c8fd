#include "quarn/settings/QuarnSettingsClient.h"

namespace quarn::settings {

QuarnSettingsClient::QuarnSettingsClient(const char* databasePath)
    : databasePath_(databasePath != nullptr ? databasePath : "") {}

QuarnSettingsClient::~QuarnSettingsClient() = default;

} // namespace quarn::settings
