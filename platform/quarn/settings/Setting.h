#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "quarn/Export.h"
#include "quarn/osa/Exception.h"

namespace quarn::settings {

/// An integer or a text.
using Setting = std::variant<std::int64_t, std::string>;

/// A setting is not of the type that was asked for.
class QUARN_API SettingTypeException : public osa::Exception {
public:
    using osa::Exception::Exception;
};

} // namespace quarn::settings
