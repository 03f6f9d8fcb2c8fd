#include "WebServer.h"

#include <malloc.h>
#include <systemd/sd-daemon.h>

#include <csignal>
#include <iostream>
#include <optional>
#include <stdexcept>

extern "C" {
#include <libavutil/log.h>
}

#include "api/ClientPool.h"
#include "api/Events.h"
#include "api/Facts.h"
#include "api/Login.h"
#include "api/Media.h"
#include "api/Metrics.h"
#include "api/PageFiles.h"
#include "api/Site.h"
#include "http/HttpServer.h"
#include "pipelines/ExitStatus.h"
#include "pipelines/SignalWatcher.h"

namespace calvane_web {
namespace {

constexpr std::size_t kMostQuestions = 4;
constexpr int kMostFreeBytes = 256 * 1024; ///< That the C library keeps for later at the end of its memory.

/// Everything that is served, and who serves it.
class WebServer {
public:
    explicit WebServer(const WebOptions& options);

    /// Returns after Stop.
    void Run() { server_.Run(); }
    void Stop();
    /// For a browser on this machine.
    std::string Url() const;

private:
    static Listener Listen(const WebOptions& options);
    static Site::Options SiteOptions(const WebOptions& options, const Address& local, Login* login);
    void AddFacts();
    void AddMedia();
    void AddLogin();

    const bool isBehindProxy_;
    const PageFiles page_;
    std::optional<TlsContext> tls_;
    std::optional<Login> login_;
    const Listener listener_;
    ClientPool clients_{kMostQuestions};
    Media media_;
    Events events_;
    Site site_;
    HttpEngine engine_;
    HttpServer server_;
};

Listener WebServer::Listen(const WebOptions& options) {
    Listener listener =
        Listener::HasFromSystemd() ? Listener::FromSystemd() : Listener(Address::Parse(options.listen));
    const bool isProtected = !options.certificateFile.empty() && !options.passwordFile.empty();
    if (!listener.Local().IsLoopback() && !isProtected && !options.behindProxy) {
        throw std::invalid_argument(
            "Others than this machine could connect to " + listener.Local().Text() +
            ": that takes --tls-cert, --tls-key and --password-file, or --behind-proxy");
    }
    return listener;
}

Site::Options WebServer::SiteOptions(const WebOptions& options, const Address& local, Login* login) {
    Site::Options site;
    if (local.IsLoopback() && !options.behindProxy && login == nullptr) {
        const std::string port = std::to_string(local.port);
        site.hosts = {local.Text(), "localhost:" + port, "127.0.0.1:" + port, "[::1]:" + port};
    }
    if (login != nullptr) {
        site.isAllowed = [login](const Request& request) { return login->Knows(request); };
    }
    return site;
}

WebServer::WebServer(const WebOptions& options)
    : isBehindProxy_(options.behindProxy),
      page_(options.page.empty() ? DefaultPageFolder() : options.page),
      tls_(options.certificateFile.empty()
               ? std::nullopt
               : std::make_optional<TlsContext>(options.certificateFile, options.keyFile)),
      listener_(Listen(options)),
      site_(SiteOptions(options, listener_.Local(),
                        options.passwordFile.empty()
                            ? nullptr
                            : &login_.emplace(options.passwordFile, !options.certificateFile.empty())),
            page_),
      engine_([this](const Request& request) { return site_.Handle(request); }, {"/api/login"}),
      server_(listener_, tls_ ? &*tls_ : nullptr, engine_, {256, 32, 64, !options.behindProxy}) {
    AddFacts();
    AddMedia();
    AddLogin();
}

void WebServer::AddFacts() {
    const auto add = [this](const char* path, Reply (*answer)(ClientPool&, Query&)) {
        site_.Add(path, [this, answer](const Request&, Query& query) { return answer(clients_, query); });
    };
    add("/api/summary", &AnswerSummary);
    add("/api/tracks", &AnswerTracks);
    add("/api/state", &AnswerState);
    add("/api/attributes", &AnswerAttributes);
    add("/api/status", &AnswerStatus);
    add("/api/coverage", &AnswerCoverage);
    add("/api/history", &AnswerHistory);
    add("/healthz", &AnswerHealth);
    site_.Add("/api/events", [this](const Request&, Query& query) { return events_.Answer(query); });
    site_.Add("/metrics", [this](const Request&, Query& query) {
        const HttpServer::Counts counts = server_.GetCounts();
        return AnswerMetrics(
            clients_, query,
            {counts.connections, counts.refused, counts.open, clients_.Failures() + media_.Failures()});
    });
}

void WebServer::AddMedia() {
    const auto add = [this](const char* path, Reply (Media::*answer)(const Media::Client&, Query&)) {
        site_.Add(path, [this, answer](const Request& request, Query& query) {
            const bool isOne = !isBehindProxy_ && !Address{request.peer, 0}.IsLoopback();
            return (media_.*answer)(isOne ? request.peer : "", query);
        });
    };
    add("/api/media", &Media::AnswerMedia);
    add("/api/export", &Media::AnswerExport);
    add("/api/thumbnail", &Media::AnswerThumbnail);
}

void WebServer::AddLogin() {
    if (!login_) {
        return;
    }
    site_.AddPost("/api/login",
                  [this](const Request& request, Query& query) { return login_->Enter(request, query); });
    site_.AddPost("/api/logout",
                  [this](const Request& request, Query& query) { return login_->Leave(request, query); });
}

void WebServer::Stop() {
    media_.Stop();
    events_.Stop();
    server_.Stop();
}

std::string WebServer::Url() const {
    return (tls_ ? "https://" : "http://") + listener_.Local().Text() + "/";
}

} // namespace

int RunWebServer(const WebOptions& options) {
    if (options.certificateFile.empty() != options.keyFile.empty()) {
        throw std::invalid_argument("--tls-cert and --tls-key go together");
    }
    calvane_program::SignalWatcher signals; // First: it makes no thread but sees all signals.
    std::signal(SIGPIPE, SIG_IGN);          // OpenSSL's writes would raise it.
    av_log_set_level(AV_LOG_FATAL);         // What fails is in the answers.
    mallopt(M_ARENA_MAX, 2);                // Threads come and go with the clients; each would keep its own.
    mallopt(M_TRIM_THRESHOLD, kMostFreeBytes);
    WebServer server(options);
    signals.Watch([&server] { server.Stop(); });
    std::cout << "Open " << server.Url() << " in a browser" << std::endl;
    sd_notify(0, "READY=1");
    server.Run();
    signals.End();
    return calvane_program::kDone;
}

} // namespace calvane_web
