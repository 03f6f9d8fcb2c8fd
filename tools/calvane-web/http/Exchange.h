#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace calvane_web {

/// What a client asks. All of it comes from outside.
struct Request {
    std::string method;
    std::string path;
    std::string query; ///< As it came, without the question mark.
    std::string body;
    std::string peer;                           ///< The address it comes from.
    std::map<std::string, std::string> headers; ///< Those in kKnownHeaders, with names in lower case.

    /// Empty when it has none.
    std::string Header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
};

/// Takes the body of an answer piece by piece.
///
/// Errors: Disconnected when the client is gone or does not read.
class IBodySink {
public:
    virtual void Write(const void* bytes, std::size_t length) = 0;
    void Write(std::string_view text) { Write(text.data(), text.size()); }
    /// Whether the client is still there, as far as can be seen.
    virtual bool IsConnected() = 0;
    virtual ~IBodySink() = default;
};

/// Writes a whole body. An exception cuts the response off, so that the client sees that it is not whole.
using BodyWriter = std::function<void(IBodySink&)>;

struct Reply {
    int status = 200;
    std::string type;
    std::string body;
    std::multimap<std::string, std::string> headers;
    BodyWriter write; ///< In place of `body`.
};

using Handler = std::function<Reply(const Request&)>;

} // namespace calvane_web
