#pragma once

#include <map>
#include <string>

#include "quarn/core/LogLevel.h"

namespace quarn::core {

/// The level of each logger by its name.
class LogLevels {
public:
    /// Warning for all.
    LogLevels() = default;
    /// Reads the form that Logger::SetLevels describes, with its errors.
    explicit LogLevels(const std::string& spec);

    LogLevel GetLevel(const std::string& logger) const;

private:
    void Add(const std::string& piece);

    LogLevel others_ = LogLevel::Warning;
    std::map<std::string, LogLevel> named_;
};

} // namespace quarn::core
