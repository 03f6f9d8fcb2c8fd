#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "TimeText.h"

namespace calvane_web {

/// The parameters of a request: what stands behind the question mark.
///
/// Errors: std::invalid_argument that names the parameter.
class Query {
public:
    /// As application/x-www-form-urlencoded: %41 and + are decoded. Throws for what is not well-formed UTF-8 then, has
    /// control characters, is given twice, has no value, and for more than 16 parameters.
    explicit Query(std::string_view text);

    bool Has(const std::string& name) const { return values_.count(name) != 0; }
    std::optional<std::string> Take(const std::string& name);
    std::string TakeOr(const std::string& name, const std::string& otherwise);
    /// As the command line takes times; in UTC where they say nothing else. With an empty `otherwise` it must be given.
    calvane_recording::Time TakeTime(const std::string& name, const std::string& otherwise,
                                     calvane_recording::Time now);
    std::int64_t TakeNumber(const std::string& name, std::int64_t least, std::int64_t most,
                            std::int64_t otherwise);
    /// Throws when there is a parameter that nobody took.
    void RequireAllTaken() const;

private:
    std::map<std::string, std::string> values_;
};

/// Throws std::invalid_argument when the parameter "to" is before "from".
void RequireOrder(const calvane_recording::Span& span);

} // namespace calvane_web
