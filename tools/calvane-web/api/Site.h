#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "api/ClientPool.h"
#include "api/PageFiles.h"
#include "api/Query.h"
#include "http/Exchange.h"

namespace calvane_web {

/// Everything that can be asked for: by its path the page's files and the answers of the recorder, with the rules that hold
/// for all of them.
///
/// Threads: Handle from any, once all is added.
/// Errors:  become answers: 400 for a bad query, 401, 404, 405, 503 when the recorder does not answer.
class Site {
public:
    struct Options {
        /// What a request's Host may be, "127.0.0.1:8080" and others; empty: anything. A page of another site that has its own
        /// name lead here could read the answers otherwise.
        std::vector<std::string> hosts;
        /// Whether a client has logged in; without it everybody may ask. The page itself and /healthz are open.
        std::function<bool(const Request&)> isAllowed;
    };
    using Answer = std::function<Reply(const Request&, Query&)>;

    Site(const Options& options, const PageFiles& page);

    /// For GET and HEAD.
    void Add(const std::string& path, Answer answer);
    void AddPost(const std::string& path, Answer answer);

    Reply Handle(const Request& request) const;

private:
    Reply Find(const Request& request) const;
    bool IsOfThisHost(const Request& request) const;

    const Options options_;
    const PageFiles& page_;
    std::map<std::string, Answer> answers_;
    std::map<std::string, Answer> posts_;
};

} // namespace calvane_web
