#include "quarn/core/StringUtil.h"

#include <charconv>
#include <system_error>

namespace quarn::core {

namespace {

constexpr const char* kBlanks = " \t";

template <typename Number>
bool TryParseWhole(const std::string& text, Number& number) {
    const char* const end = text.data() + text.size();
    Number parsed = 0;
    const std::from_chars_result result = std::from_chars(text.data(), end, parsed);
    if (result.ec != std::errc() || result.ptr != end) {
        return false;
    }
    number = parsed;
    return true;
}

} // namespace

std::vector<std::string> StringUtil::Split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    size_t begin = 0;
    for (size_t end = text.find(separator); end != std::string::npos; end = text.find(separator, begin)) {
        pieces.push_back(Trim(text.substr(begin, end - begin)));
        begin = end + 1;
    }
    pieces.push_back(Trim(text.substr(begin)));
    return pieces;
}

std::string StringUtil::Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool StringUtil::StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string StringUtil::ToLower(const std::string& text) {
    std::string lower = text;
    for (char& character : lower) {
        if (character >= 'A' && character <= 'Z') {
            character = static_cast<char>(character - 'A' + 'a');
        }
    }
    return lower;
}

bool StringUtil::TryParse(const std::string& text, unsigned int& number) {
    return TryParseWhole(text, number);
}

bool StringUtil::TryParse(const std::string& text, signed char& number) {
    return TryParseWhole(text, number);
}

const char* StringUtil::ToCStr(const std::string& text, const char* fallback) {
    return text.empty() ? fallback : text.c_str();
}

} // namespace quarn::core
