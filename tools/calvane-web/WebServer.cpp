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

#include "api/Login.h"
#include "api/PageFiles.h"
#include "command_line/ExitStatus.h"
#include "http/HttpServer.h"
#include "pipelines/SignalWatcher.h"

namespace calvane_web {
namespace {

constexpr int kMostFreeBytes = 256 * 1024; ///< That the C library keeps for later at the end of its memory.

/// Everything that is served, and who serves it.
class WebServer {
public:
    WebServer(const WebOptions& options, IWebContent& content);

    /// Returns after Stop.
    void Run() { server_.Run(); }
    void Stop();
    /// For a browser on this machine.
    std::string Url() const;

private:
    static Listener Listen(const WebOptions& options);
    static Site::Options SiteOptions(const WebOptions& options, const Address& local, Login* login);
    ServerFacts Facts();
    void AddLogin();

    const bool isBehindProxy_;
    IWebContent& content_;
    const PageFiles page_;
    std::optional<TlsContext> tls_;
    std::optional<Login> login_;
    const Listener listener_;
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

WebServer::WebServer(const WebOptions& options, IWebContent& content)
    : isBehindProxy_(options.behindProxy),
      content_(content),
      page_(options.page.empty() ? DefaultPageFolder() : options.page, content.Page()),
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
    content_.AddTo(site_, Facts());
    AddLogin();
}

ServerFacts WebServer::Facts() {
    return {[this] {
                const HttpServer::Counts counts = server_.GetCounts();
                return ServerCounts{counts.connections, counts.refused, counts.open};
            },
            [this](const Request& request) {
                const bool isOne = !isBehindProxy_ && !Address{request.peer, 0}.IsLoopback();
                return isOne ? request.peer : std::string();
            }};
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
    content_.Stop();
    server_.Stop();
}

std::string WebServer::Url() const {
    return (tls_ ? "https://" : "http://") + listener_.Local().Text() + "/";
}

} // namespace

int RunWebServer(const WebOptions& options,
                 const std::function<std::unique_ptr<IWebContent>()>& makeContent) {
    if (options.certificateFile.empty() != options.keyFile.empty()) {
        throw std::invalid_argument("--tls-cert and --tls-key go together");
    }
    calvane_program::SignalWatcher signals; // First: it makes no thread but sees all signals.
    std::signal(SIGPIPE, SIG_IGN);          // OpenSSL's writes would raise it.
    av_log_set_level(AV_LOG_FATAL);         // What fails is in the answers.
    mallopt(M_ARENA_MAX, 2);                // Threads come and go with the clients; each would keep its own.
    mallopt(M_TRIM_THRESHOLD, kMostFreeBytes);
    const auto content = makeContent();
    WebServer server(options, *content);
    signals.Watch([&server] { server.Stop(); });
    std::cout << "Open " << server.Url() << " in a browser" << std::endl;
    sd_notify(0, "READY=1");
    server.Run();
    signals.End();
    return calvane_program::kDone;
}

} // namespace calvane_web
