#include "quarn/core/internal/LogLevels.h"

#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"

namespace quarn::core {

namespace {

struct LevelName {
    const char* name;
    LogLevel level;
};

constexpr LevelName kLevelNames[] = {
    {"off", LogLevel::Off},          {"error", LogLevel::Error},
    {"warning", LogLevel::Warning},  {"information", LogLevel::Information},
    {"info", LogLevel::Information}, {"debug", LogLevel::Debug},
    {"trace", LogLevel::Trace},
};

bool TryParseLevel(const std::string& text, LogLevel& level) {
    const std::string lower = StringUtil::ToLower(text);
    for (const LevelName& known : kLevelNames) {
        if (lower == known.name) {
            level = known.level;
            return true;
        }
    }
    return false;
}

} // namespace

LogLevels::LogLevels(const std::string& spec) {
    if (StringUtil::Trim(spec).empty()) {
        return;
    }
    for (const std::string& piece : StringUtil::Split(spec, ',')) {
        Add(piece);
    }
}

void LogLevels::Add(const std::string& piece) {
    const size_t equals = piece.rfind('='); // The last one, because a logger's name may have some too.
    const bool isBare = equals == std::string::npos;
    const std::string name = isBare ? "*" : StringUtil::Trim(piece.substr(0, equals));
    LogLevel level = LogLevel::Off;
    if (name.empty() || !TryParseLevel(isBare ? piece : StringUtil::Trim(piece.substr(equals + 1)), level)) {
        throw osa::Exception(
            "Invalid log level \"%s\": want a level, or a logger's name, = and a level; "
            "the levels are off, error, warning, information (or info), debug and trace",
            piece.c_str());
    }
    if (name == "*") {
        others_ = level;
    } else {
        named_[name] = level;
    }
}

LogLevel LogLevels::GetLevel(const std::string& logger) const {
    const auto found = named_.find(logger);
    return found != named_.end() ? found->second : others_;
}

} // namespace quarn::core
