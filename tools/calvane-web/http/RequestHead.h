#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace calvane_web {

/// The longest head of a request, which has the request line and the headers.
constexpr std::size_t kLongestHead = std::size_t{16} * 1024;

/// The longest body that is taken.
constexpr std::size_t kLongestBody = 4096;

/// Where the head that `bytes` begin with ends, behind its empty line; nothing if that has not come yet.
std::optional<std::size_t> FindHeadEnd(std::string_view bytes);

/// A head (RFC 9112) without the headers that this server makes no use of, so that what parses it further has less to do:
/// ranges, expectations and forms of bodies are not offered.
///
/// Errors: std::invalid_argument for one that is ambiguous (a header twice, a line that is folded), has control characters, or
///         a body whose length it does not tell.
std::string FilterHead(std::string_view head);

/// How long the body is that a filtered head announces. Throws std::invalid_argument for a length that is no number.
std::size_t BodyLength(std::string_view head);

/// Whether `received` begins with a whole request, or with something that will never be one.
bool IsWhole(std::string_view received);

} // namespace calvane_web
