#include "http/RequestHead.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <set>
#include <stdexcept>

namespace calvane_web {
namespace {

constexpr std::array<std::string_view, 9> kUsed{"accept-encoding", "connection",     "content-length",
                                                "content-type",    "cookie",         "host",
                                                "if-none-match",   "sec-fetch-site", "transfer-encoding"};

std::string Lower(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char each) { return static_cast<char>(std::tolower(each)); });
    return lower;
}

bool HasControlCharacter(std::string_view line) {
    return std::any_of(line.begin(), line.end(), [](char each) {
        const auto byte = static_cast<unsigned char>(each);
        return (byte < 0x20 && byte != '\t') || byte == 0x7F;
    });
}

std::string_view Trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// Takes the next line off, without its end.
std::string_view TakeLine(std::string_view& head) {
    const std::size_t end = head.find("\r\n");
    const std::string_view line = head.substr(0, end);
    head.remove_prefix(end == std::string_view::npos ? head.size() : end + 2);
    if (HasControlCharacter(line)) {
        throw std::invalid_argument("The head of the request has control characters");
    }
    return line;
}

} // namespace

std::optional<std::size_t> FindHeadEnd(std::string_view bytes) {
    const std::size_t end = bytes.find("\r\n\r\n");
    return end == std::string_view::npos ? std::nullopt : std::optional(end + 4);
}

std::string FilterHead(std::string_view head) {
    std::string filtered(TakeLine(head));
    filtered += "\r\n";
    std::set<std::string> seen;
    for (std::string_view line = TakeLine(head); !line.empty(); line = TakeLine(head)) {
        const std::size_t colon = line.find(':');
        const std::string name = Lower(line.substr(0, colon));
        if (colon == std::string_view::npos || colon == 0 || name.find_first_of(" \t") != std::string::npos) {
            throw std::invalid_argument("A header of the request has no name");
        }
        if (std::find(kUsed.begin(), kUsed.end(), name) == kUsed.end()) {
            continue;
        }
        if (!seen.insert(name).second) {
            throw std::invalid_argument("The request has two headers " + name);
        }
        filtered.append(name).append(": ").append(Trimmed(line.substr(colon + 1))).append("\r\n");
    }
    if (seen.count("transfer-encoding") != 0) {
        throw std::invalid_argument("The request does not tell the length of its body in Content-Length");
    }
    return filtered + "\r\n";
}

std::size_t BodyLength(std::string_view head) {
    constexpr std::string_view kName = "\r\ncontent-length: ";
    const std::size_t name = head.find(kName);
    if (name == std::string_view::npos) {
        return 0;
    }
    const std::string_view text =
        head.substr(name + kName.size(), head.find("\r\n", name + 2) - name - kName.size());
    std::size_t length = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw std::invalid_argument("The request has a Content-Length that is no number");
    }
    return length;
}

bool IsWhole(std::string_view received) {
    const auto end = FindHeadEnd(received);
    if (!end) {
        return received.size() > kLongestHead;
    }
    try {
        const std::size_t length = BodyLength(FilterHead(received.substr(0, *end)));
        return length > kLongestBody || received.size() - *end >= length;
    } catch (const std::invalid_argument&) {
        return true; // It is refused.
    }
}

} // namespace calvane_web
