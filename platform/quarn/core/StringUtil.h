#pragma once

#include <string>
#include <vector>

#include "quarn/Export.h"

namespace quarn::core {

/// Operations on texts. All of them work on bytes and know no locale; a blank is a space or a tab.
///
/// Threads: any.
class QUARN_API StringUtil {
public:
    StringUtil() = delete;

    /// The pieces between the separators, in order, each without the blanks around it. n separators give
    /// n + 1 pieces, so the empty text gives one empty piece.
    static std::vector<std::string> Split(const std::string& text, char separator);

    /// `text` without the blanks before and behind it.
    static std::string Trim(const std::string& text);

    static bool StartsWith(const std::string& text, const std::string& prefix);

    /// Turns A to Z into a to z and leaves every other byte alone.
    static std::string ToLower(const std::string& text);

    /// Reads a decimal number that makes up the whole text: no blanks, no plus sign, within the range of the
    /// type. Otherwise returns false and leaves `number` untouched.
    static bool TryParse(const std::string& text, unsigned int& number);
    static bool TryParse(const std::string& text, signed char& number);

    /// The characters of `text`, or `fallback` when it is empty. Good for as long as both live unchanged.
    static const char* ToCStr(const std::string& text, const char* fallback = "");
};

} // namespace quarn::core
