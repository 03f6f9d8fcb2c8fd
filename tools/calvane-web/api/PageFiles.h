#pragma once

#include <map>
#include <string>

#include "http/Exchange.h"

namespace calvane_web {

/// The files of the page, read once: what is asked for is looked up among them and reaches no path.
///
/// Errors: std::runtime_error that names the folder or file, when it cannot be read, has no index.html, or is larger than a
///         page should be.
class PageFiles {
public:
    explicit PageFiles(const std::string& folder);

    /// "/" is index.html. Only for a path that it has.
    Reply Find(const Request& request) const;
    bool Has(const std::string& path) const { return files_.count(path) != 0; }

private:
    struct File {
        std::string content;
        std::string packed; ///< The same by gzip.
        std::string type;
        std::string tag; ///< ETag, of the content.
    };
    std::map<std::string, File> files_;
};

/// The folder of the page: CALVANE_WEB_PAGE, that of the installation, or that of the source tree.
std::string DefaultPageFolder();

} // namespace calvane_web
