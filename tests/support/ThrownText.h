#pragma once

#include <functional>
#include <string>
#include <vector>

#include "quarn/osa/Exception.h"

using Texts = std::vector<std::string>;

/// Runs `action` and returns the text of the Exception that it throws, or "nothing was thrown".
template <typename ExceptionType = quarn::osa::Exception>
std::string ThrownText(const std::function<void()>& action) {
    try {
        action();
    } catch (const ExceptionType& error) {
        return error.what();
    }
    return "nothing was thrown";
}
