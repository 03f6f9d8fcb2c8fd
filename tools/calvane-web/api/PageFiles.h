#pragma once

#include <map>
#include <memory>
#include <string>

#include "http/Exchange.h"

namespace calvane_web {

/// The files of the page, read once: what is asked for is looked up among them and reaches no path.
///
/// What the home page loads from "v/" it is sent to load from "v-TAG/", where the tag is that of all files together: what lies
/// there never changes, so that a browser need not ask again.
///
/// Errors: std::runtime_error that names the folder or file, when it cannot be read, has no such page, or is larger
///         than a page should be.
class PageFiles {
public:
    /// "/" is the file `home`; other pages of the folder are not served.
    explicit PageFiles(const std::string& folder, const std::string& home = "index.html");

    /// Only for a path that it has.
    Reply Find(const Request& request) const;
    bool Has(const std::string& path) const { return files_.count(path) != 0; }

private:
    struct File {
        std::string content;
        std::string packed; ///< The same by gzip.
        std::string type;
        std::string tag; ///< ETag, of the content.
    };
    static File MakeFile(std::string content, const std::string& type);
    void AddVersion(const std::string& home);

    std::map<std::string, std::shared_ptr<const File>> files_;
    std::string version_; ///< "/v-TAG/"
};

/// The folder of the page: CALVANE_WEB_PAGE, that of the installation, or that of the source tree.
std::string DefaultPageFolder();

} // namespace calvane_web
