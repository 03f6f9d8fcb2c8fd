#include "WebServer.h"

#include <malloc.h>
#include <systemd/sd-daemon.h>

#include <csignal>
#include <iostream>
#include <optional>

#include "api/ClientPool.h"
#include "api/Facts.h"
#include "api/Media.h"
#include "api/PageFiles.h"
#include "api/Site.h"
#include "http/HttpServer.h"
#include "pipelines/ExitStatus.h"
#include "pipelines/SignalWatcher.h"

namespace calvane_web {
namespace {

constexpr std::size_t kMostQuestions = 4;

void AddFacts(Site& site, ClientPool& clients) {
    const auto add = [&](const char* path, Reply (*answer)(ClientPool&, Query&)) {
        site.Add(path, [&clients, answer](const Request&, Query& query) { return answer(clients, query); });
    };
    add("/api/summary", &AnswerSummary);
    add("/api/tracks", &AnswerTracks);
    add("/api/state", &AnswerState);
    add("/api/attributes", &AnswerAttributes);
    add("/api/status", &AnswerStatus);
    add("/api/coverage", &AnswerCoverage);
    add("/api/history", &AnswerHistory);
    add("/healthz", &AnswerHealth);
}

void AddMedia(Site& site, Media& media) {
    const auto add = [&](const char* path, Reply (Media::*answer)(Query&)) {
        site.Add(path, [&media, answer](const Request&, Query& query) { return (media.*answer)(query); });
    };
    add("/api/media", &Media::AnswerMedia);
    add("/api/export", &Media::AnswerExport);
    add("/api/thumbnail", &Media::AnswerThumbnail);
}

} // namespace

int RunWebServer(const WebOptions& options) {
    calvane_program::SignalWatcher signals; // First: it makes no thread but sees all signals.
    std::signal(SIGPIPE, SIG_IGN);          // OpenSSL's writes would raise it.
    mallopt(M_ARENA_MAX, 2);                // Threads come and go with the clients; each would keep its own.
    const PageFiles page(options.page.empty() ? DefaultPageFolder() : options.page);
    const Listener listener =
        Listener::HasFromSystemd() ? Listener::FromSystemd() : Listener(Address::Parse(options.listen));
    const Address local = listener.Local();
    ClientPool clients(kMostQuestions);
    Site site({{local.Text(), "localhost:" + std::to_string(local.port)}}, page);
    AddFacts(site, clients);
    Media media;
    AddMedia(site, media);
    HttpEngine engine([&site](const Request& request) { return site.Handle(request); }, {});
    HttpServer server(listener, nullptr, engine, {});
    signals.Watch([&] {
        media.Stop();
        server.Stop();
    });
    std::cout << "Open http://" << local.Text() << "/ in a browser" << std::endl;
    sd_notify(0, "READY=1");
    server.Run();
    signals.End();
    return calvane_program::kDone;
}

} // namespace calvane_web
