#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace calvane_web {

/// The longest head of a request, which has the request line and the headers.
constexpr std::size_t kLongestHead = 16 * 1024;

/// Where the head that `bytes` begin with ends, behind its empty line; nothing if that has not come yet.
std::optional<std::size_t> FindHeadEnd(std::string_view bytes);

/// A head (RFC 9112) without the headers that this server makes no use of, so that what parses it further has less to do:
/// ranges, expectations and forms of bodies are not offered.
///
/// Errors: std::invalid_argument for one that is ambiguous (two lengths, a length and a coding, a line that is folded), or
///         has control characters.
std::string FilterHead(std::string_view head);

/// Whether a filtered head announces a body.
bool HasBody(std::string_view head);

} // namespace calvane_web
