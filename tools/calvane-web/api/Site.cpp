#include "api/Site.h"

#include <algorithm>
#include <utility>

#include "api/Replies.h"
#include "http/Connection.h"
#include "http/HttpEngine.h"

namespace calvane_web {
namespace {

using calvane_recording::RecordingClient;

constexpr auto kContentPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:; "
    "media-src 'self' blob:; connect-src 'self'; form-action 'none'; frame-ancestors 'none'; base-uri 'none'";

constexpr int kRetrySeconds = 2;
constexpr auto kOpenAnswer = "/healthz"; ///< For those who watch over the device.

Reply MethodReply(const std::string& allowed) {
    Reply reply = ErrorReply(405, "This path takes only " + allowed);
    reply.headers.emplace("Allow", allowed);
    return reply;
}

/// A page of another site cannot log somebody in or out. Browsers say so where TLS or this machine is asked.
bool IsFromOtherSite(const Request& request) {
    const std::string site = request.Header("sec-fetch-site");
    return !site.empty() && site != "same-origin";
}

/// Passes a body on for as long as its reader may ask.
class SessionSink : public IBodySink {
public:
    SessionSink(IBodySink& sink, const std::function<bool()>& isAllowed)
        : sink_(sink), isAllowed_(isAllowed) {}
    using IBodySink::Write;
    void Write(const void* bytes, std::size_t length) override {
        if (!isAllowed_()) {
            throw Disconnected("The session has ended");
        }
        sink_.Write(bytes, length);
    }
    bool IsConnected() override { return sink_.IsConnected() && isAllowed_(); }

private:
    IBodySink& sink_;
    const std::function<bool()>& isAllowed_;
};

} // namespace

Site::Site(const Options& options, const PageFiles& page) : options_(options), page_(page) {}

void Site::Add(const std::string& path, Answer answer) {
    answers_[path] = std::move(answer);
}

void Site::AddPost(const std::string& path, Answer answer) {
    posts_[path] = std::move(answer);
}

bool Site::IsOfThisHost(const Request& request) const {
    return options_.hosts.empty() || std::find(options_.hosts.begin(), options_.hosts.end(),
                                               request.Header("host")) != options_.hosts.end();
}

Reply Site::Handle(const Request& request) const {
    Reply reply;
    try {
        reply = IsOfThisHost(request)
                    ? Find(request)
                    : ErrorReply(421, "This server is not the host that the request names; use its address");
    } catch (const std::invalid_argument& problem) {
        reply = ErrorReply(400, problem.what());
    } catch (const Busy& problem) {
        reply = LaterReply(503, problem.what(), kRetrySeconds);
    } catch (const Unavailable& problem) {
        reply = LaterReply(503, problem.what(), kRetrySeconds);
    } catch (const RecordingClient::NotRunning& problem) {
        reply = LaterReply(503, problem.what(), kRetrySeconds);
    } catch (const RecordingClient::NoAnswer& problem) {
        reply = LaterReply(503, problem.what(), kRetrySeconds);
    } catch (const std::runtime_error& problem) { // What who was asked says: there is nothing of the kind.
        reply = ErrorReply(404, problem.what());
    }
    reply.headers.emplace("Content-Security-Policy", kContentPolicy);
    reply.headers.emplace("X-Content-Type-Options", "nosniff");
    reply.headers.emplace("Referrer-Policy", "no-referrer");
    reply.headers.emplace("Cross-Origin-Resource-Policy", "same-origin");
    return reply;
}

Reply Site::Find(const Request& request) const {
    const bool isRead = request.method == "GET" || request.method == "HEAD";
    if (const auto post = posts_.find(request.path); post != posts_.end()) {
        if (request.method != "POST") {
            return MethodReply("POST");
        }
        if (IsFromOtherSite(request)) {
            return ErrorReply(403, "This path is not for pages of other sites");
        }
        Query query(request.query);
        return post->second(request, query);
    }
    const auto answer = answers_.find(request.path);
    if (answer == answers_.end() && !page_.Has(request.path)) {
        return ErrorReply(404, "There is nothing at " + ForLog(request.path));
    }
    if (!isRead) {
        return MethodReply("GET, HEAD");
    }
    if (answer == answers_.end()) {
        return page_.Find(request);
    }
    if (options_.isAllowed && request.path != kOpenAnswer && !options_.isAllowed(request)) {
        return ErrorReply(401, "Log in first");
    }
    Query query(request.query);
    Reply reply = answer->second(request, query);
    if (options_.isAllowed && reply.write) {
        reply.write = [write = std::move(reply.write), isAllowed = std::function<bool()>([this, request] {
                                                           return options_.isAllowed(request);
                                                       })](IBodySink& sink) {
            SessionSink guarded(sink, isAllowed);
            write(guarded);
        };
    }
    return reply;
}

} // namespace calvane_web
