#pragma once

#include <string>

#include "calvane/Export.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

/// A fault that can be traced to one place of a description: a group, and a key in it.
///
/// The text is complete without the place; a program that knows the file adds the line.
class CALVANE_API SettingException : public osa::Exception {
public:
    /// An empty `key` stands for the group as a whole.
    SettingException(std::string group, std::string key, const std::string& text);
    SettingException(const SettingException& other);
    ~SettingException() override;

    const std::string& GetGroup() const { return group_; }
    const std::string& GetKey() const { return key_; }

private:
    std::string group_;
    std::string key_;
};

} // namespace quarn::calvane
