#include "api/Query.h"

#include <charconv>

namespace calvane_web {
namespace {

constexpr std::size_t kMostParameters = 16;

int HexDigit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// Whether it is UTF-8 (RFC 3629) without control characters.
bool IsPlainText(std::string_view text) {
    for (std::size_t i = 0; i != text.size();) {
        const auto lead = static_cast<unsigned char>(text[i++]);
        if (lead < 0x80) {
            if (lead < 0x20 || lead == 0x7F) {
                return false;
            }
            continue;
        }
        const std::size_t more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
        if (lead < 0xC2 || lead > 0xF4 || text.size() - i < more) {
            return false;
        }
        const auto second = static_cast<unsigned char>(text[i]);
        // Overlong forms, surrogates and what lies beyond U+10FFFF.
        if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
            (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F)) {
            return false;
        }
        for (std::size_t end = i + more; i != end; ++i) {
            if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
                return false;
            }
        }
    }
    return true;
}

std::string Decode(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i != text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i] == '+' ? ' ' : text[i];
            continue;
        }
        const int high = text.size() - i > 2 ? HexDigit(text[i + 1]) : -1;
        const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
        if (low < 0) {
            throw std::invalid_argument("The query has a % without two hexadecimal digits");
        }
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    if (!IsPlainText(decoded)) {
        throw std::invalid_argument("The query is no UTF-8, or has control characters");
    }
    return decoded;
}

} // namespace

Query::Query(std::string_view text) {
    while (!text.empty()) {
        const std::string_view pair = text.substr(0, text.find('&'));
        text.remove_prefix(pair.size() == text.size() ? text.size() : pair.size() + 1);
        const std::size_t mark = pair.find('=');
        const std::string name = Decode(pair.substr(0, mark));
        if (name.empty() || mark == std::string_view::npos || mark + 1 == pair.size()) {
            throw std::invalid_argument("The parameter \"" + name + "\" has no " +
                                        (name.empty() ? "name" : "value"));
        }
        if (values_.size() == kMostParameters) {
            throw std::invalid_argument("The query has more than " + std::to_string(kMostParameters) +
                                        " parameters");
        }
        if (!values_.emplace(name, Decode(pair.substr(mark + 1))).second) {
            throw std::invalid_argument("The parameter \"" + name + "\" is given twice");
        }
    }
}

std::optional<std::string> Query::Take(const std::string& name) {
    const auto taken = values_.extract(name);
    return taken.empty() ? std::nullopt : std::optional(std::move(taken.mapped()));
}

std::string Query::TakeOr(const std::string& name, const std::string& otherwise) {
    return Take(name).value_or(otherwise);
}

calvane_recording::Time Query::TakeTime(const std::string& name, const std::string& otherwise,
                                        calvane_recording::Time now) {
    const std::string text = TakeOr(name, otherwise);
    if (text.empty()) {
        throw std::invalid_argument("The parameter \"" + name + "\" is missing");
    }
    try {
        return calvane_recording::ParseTime(text, now, calvane_recording::Zone::Utc);
    } catch (const std::invalid_argument& problem) {
        throw std::invalid_argument(name + ": " + problem.what());
    }
}

std::int64_t Query::TakeNumber(const std::string& name, std::int64_t least, std::int64_t most,
                               std::int64_t otherwise) {
    const auto text = Take(name);
    if (!text) {
        return otherwise;
    }
    std::int64_t number = 0;
    const char* const end = text->data() + text->size();
    const auto [rest, error] = std::from_chars(text->data(), end, number);
    if (rest != end || error != std::errc() || number < least || number > most) {
        throw std::invalid_argument(name + ": not a number from " + std::to_string(least) + " to " +
                                    std::to_string(most) + ": \"" + *text + "\"");
    }
    return number;
}

void Query::RequireAllTaken() const {
    if (!values_.empty()) {
        throw std::invalid_argument("There is no parameter \"" + values_.begin()->first + "\" here");
    }
}

void RequireOrder(const calvane_recording::Span& span) {
    if (span.last < span.first) {
        throw std::invalid_argument("to: it is before from");
    }
}

} // namespace calvane_web
