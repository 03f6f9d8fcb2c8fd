#include "calvane/graph/SettingException.h"

#include <utility>

namespace quarn::calvane {

SettingException::SettingException(std::string group, std::string key, const std::string& text)
    : Exception(text), group_(std::move(group)), key_(std::move(key)) {}

SettingException::SettingException(const SettingException& other) = default;
SettingException::~SettingException() = default;

} // namespace quarn::calvane
