#pragma once

#include <string>

#include "quarn/Export.h"

namespace quarn::settings {

/// A client of the device's settings database. It has no operations yet and opens no database: it keeps the
/// path that it was given, and nothing reads the path.
class QUARN_API QuarnSettingsClient {
public:
    /// Null stands for the default path.
    explicit QuarnSettingsClient(const char* databasePath);
    ~QuarnSettingsClient();
    QuarnSettingsClient(const QuarnSettingsClient&) = delete;
    QuarnSettingsClient& operator=(const QuarnSettingsClient&) = delete;

private:
    const std::string databasePath_; // Empty: the default path.
};

} // namespace quarn::settings
