#include "http/HttpEngine.h"

#include <httplib.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "http/RequestHead.h"
#include "quarn/core/Logger.h"

namespace calvane_web {
namespace {

using quarn::core::Logger;

constexpr time_t kKeepAliveSeconds = 60;
constexpr std::size_t kKeepAliveRequests = 10000;

Logger& Log() {
    static Logger* const logger = Logger::GetLogger("calvane-web");
    return *logger;
}

/// What the library reads a request from, which has come already, and writes the answer to.
class RequestStream : public httplib::Stream {
public:
    /// Removes the request that `received` begins with. Throws std::invalid_argument for a bad one.
    RequestStream(Connection& connection, std::string& received);

    /// Whether all of the request has been read.
    bool IsRead() const { return position_ == request_.size(); }

    bool is_readable() const override { return true; }
    bool is_writable() const override { return connection_.IsOpen(); }
    ssize_t read(char* bytes, std::size_t size) override;
    ssize_t write(const char* bytes, std::size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        ip = connection_.Peer();
        port = 0;
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        ip.clear();
        port = 0;
    }
    socket_t socket() const override { return connection_.Descriptor(); }

private:
    Connection& connection_;
    std::string request_;
    std::size_t position_ = 0;
};

RequestStream::RequestStream(Connection& connection, std::string& received) : connection_(connection) {
    const auto end = FindHeadEnd(received);
    if (!end || *end > kLongestHead) {
        throw std::length_error("The head of the request is longer than " + std::to_string(kLongestHead) +
                                " bytes");
    }
    request_ = FilterHead(std::string_view(received).substr(0, *end));
    const std::size_t length = std::min(BodyLength(request_), received.size() - *end);
    request_.append(received, *end, length);
    received.erase(0, *end + length);
}

ssize_t RequestStream::read(char* bytes, std::size_t size) {
    const std::size_t count = std::min(size, request_.size() - position_);
    std::memcpy(bytes, request_.data() + position_, count);
    position_ += count;
    return static_cast<ssize_t>(count);
}

ssize_t RequestStream::write(const char* bytes, std::size_t size) {
    try {
        connection_.Write(bytes, size);
        return static_cast<ssize_t>(size);
    } catch (const Disconnected&) {
        return -1;
    }
}

class Sink : public IBodySink {
public:
    explicit Sink(httplib::DataSink& sink) : sink_(sink) {}
    void Write(const void* bytes, std::size_t length) override {
        if (length != 0 && !sink_.write(static_cast<const char*>(bytes), length)) {
            throw Disconnected("The client is gone, or does not read");
        }
    }
    bool IsConnected() override { return sink_.is_writable(); }

private:
    httplib::DataSink& sink_;
};

std::string ErrorBody(const std::string& reason) {
    return nlohmann::json{{"error", reason}}.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

/// Answers what the library does not get to see.
void Refuse(Connection& connection, int status, const std::string& reason) {
    const std::string body = ErrorBody(reason);
    const std::string answer =
        "HTTP/1.1 " + std::to_string(status) +
        " Refused\r\nContent-Type: application/json\r\nConnection: close\r\nContent-Length: " +
        std::to_string(body.size()) + "\r\n\r\n" + body;
    try {
        connection.Write(answer.data(), answer.size());
    } catch (const Disconnected&) {
        // It is closed in any case.
    }
}

Request ToRequest(const httplib::Request& from) {
    Request request;
    request.method = from.method;
    request.path = from.path;
    const std::size_t mark = from.target.find('?');
    if (mark != std::string::npos) {
        request.query = from.target.substr(mark + 1);
    }
    request.body = from.body;
    request.peer = from.remote_addr;
    for (const auto& [name, value] : from.headers) {
        request.headers.emplace(name, value);
    }
    return request;
}

void Apply(Reply&& reply, const std::string& path, httplib::Response& to) {
    to.status = reply.status;
    for (const auto& [name, value] : reply.headers) {
        to.headers.emplace(name, value);
    }
    if (!reply.write) {
        if (!reply.body.empty() || !reply.type.empty()) {
            to.set_content(reply.body, reply.type);
        }
        return;
    }
    to.set_chunked_content_provider(
        reply.type, [write = std::move(reply.write), path](std::size_t, httplib::DataSink& sink) {
            try {
                Sink body(sink);
                write(body);
                sink.done();
                return true;
            } catch (const Disconnected&) {
                return false;
            } catch (const std::exception& problem) {
                Log().Warning("The answer to %s was cut off: %s", path.c_str(), problem.what());
                return false;
            }
        });
}

} // namespace

class HttpEngine::Server : public httplib::Server {
public:
    Server(calvane_web::Handler handler, const std::vector<std::string>& postPaths);

    bool Process(RequestStream& stream);

private:
    Reply Ask(const httplib::Request& request) const;
    HandlerResponse Route(const httplib::Request& request, httplib::Response& response) const;

    const calvane_web::Handler handler_;
    const std::vector<std::string> postPaths_;
};

HttpEngine::Server::Server(calvane_web::Handler handler, const std::vector<std::string>& postPaths)
    : handler_(std::move(handler)), postPaths_(postPaths) {
    svr_sock_ = 0; // It listens to none itself, but takes a missing one for the end.
    set_payload_max_length(kLongestBody);
    set_keep_alive_timeout(kKeepAliveSeconds)
        .set_keep_alive_max_count(kKeepAliveRequests); // Only told to clients.
    set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        return Route(request, response);
    });
    for (const std::string& path : postPaths_) {
        Post(path, [this](const httplib::Request& request, httplib::Response& response) {
            Apply(Ask(request), request.path, response);
        });
    }
    set_error_handler([](const httplib::Request&, httplib::Response& response) {
        if (response.body.empty()) { // The library's own.
            response.set_content(ErrorBody("The request cannot be read, or is too long"), "application/json");
        }
    });
}

Reply HttpEngine::Server::Ask(const httplib::Request& request) const {
    try {
        return handler_(ToRequest(request));
    } catch (const std::exception& problem) {
        Log().Error("Cannot answer %s: %s", ForLog(request.path).c_str(), problem.what());
        Reply reply;
        reply.status = 500;
        reply.type = "application/json";
        reply.body = ErrorBody("The server cannot answer; its log says why");
        return reply;
    }
}

/// All but bodies is handled here, ahead of the library's own routing, which matches regular expressions.
httplib::Server::HandlerResponse HttpEngine::Server::Route(const httplib::Request& request,
                                                           httplib::Response& response) const {
    const bool isJson = request.get_header_value("Content-Type").rfind("application/json", 0) == 0 &&
                        request.method == "POST";
    if (isJson && std::find(postPaths_.begin(), postPaths_.end(), request.path) != postPaths_.end()) {
        return HandlerResponse::Unhandled;
    }
    Apply(Ask(request), ForLog(request.path), response);
    return HandlerResponse::Handled;
}

bool HttpEngine::Server::Process(RequestStream& stream) {
    bool closed = false;
    const auto limit = [](httplib::Request& request) {
        // Of the codings only gzip: the others take seconds and megabytes.
        const bool takesGzip = request.get_header_value("Accept-Encoding").find("gzip") != std::string::npos;
        request.headers.erase("Accept-Encoding");
        if (takesGzip) {
            request.headers.emplace("Accept-Encoding", "gzip");
        }
    };
    return process_request(stream, false, closed, limit) && !closed;
}

HttpEngine::HttpEngine(Handler handler, const std::vector<std::string>& postPaths)
    : server_(std::make_unique<Server>(std::move(handler), postPaths)) {}

HttpEngine::~HttpEngine() = default;

bool HttpEngine::Serve(Connection& connection, std::string& received) {
    try {
        while (IsWhole(received)) {
            RequestStream stream(connection, received);
            // What is left of a body that was not taken is the client's mistake.
            if (!server_->Process(stream) || !stream.IsRead()) {
                return false;
            }
        }
        return true;
    } catch (const std::length_error& problem) {
        Refuse(connection, 431, problem.what());
    } catch (const std::invalid_argument& problem) {
        Refuse(connection, 400, problem.what());
    } catch (const std::exception& problem) {
        Log().Error("A connection was closed: %s", ForLog(problem.what()).c_str());
    }
    return false;
}

std::string ForLog(const std::string& fromOutside) {
    constexpr std::size_t kLongest = 100;
    std::string text = fromOutside.substr(0, kLongest);
    std::replace_if(
        text.begin(), text.end(),
        [](char each) {
            const auto byte = static_cast<unsigned char>(each);
            return byte < 0x20 || byte >= 0x7F || byte == '"' || byte == '\\';
        },
        '?');
    return text;
}

} // namespace calvane_web
