#include "api/PageFiles.h"

#define XXH_INLINE_ALL // Its code is small, and its library then not needed.
#include <xxhash.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace calvane_web {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLargestPage = std::size_t{1024} * 1024;

const std::map<std::string, std::string>& Types() {
    static const std::map<std::string, std::string> types{{".html", "text/html; charset=utf-8"},
                                                          {".js", "text/javascript; charset=utf-8"},
                                                          {".css", "text/css; charset=utf-8"},
                                                          {".svg", "image/svg+xml"}};
    return types;
}

std::string TagOf(const std::string& content) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "\"%016llx\"",
                  static_cast<unsigned long long>(XXH3_64bits(content.data(), content.size())));
    return text.data();
}

std::string Read(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    if (!file || !content) {
        throw std::runtime_error("Cannot read the page's file " + path.string());
    }
    return content.str();
}

} // namespace

PageFiles::PageFiles(const std::string& folder) {
    std::error_code error;
    std::size_t size = 0;
    for (auto each = fs::recursive_directory_iterator(folder, error);
         !error && each != fs::recursive_directory_iterator(); each.increment(error)) {
        const auto type = Types().find(each->path().extension().string());
        if (!each->is_regular_file() || type == Types().end()) {
            continue;
        }
        std::string content = Read(each->path());
        size += content.size();
        if (size > kLargestPage) {
            throw std::runtime_error("The files of the page in " + folder + " are larger than 1 MiB");
        }
        std::string tag = TagOf(content);
        files_["/" + fs::relative(each->path(), folder).generic_string()] = {std::move(content), type->second,
                                                                             std::move(tag)};
    }
    const auto index = files_.find("/index.html");
    if (index == files_.end()) {
        throw std::runtime_error("There is no page in " + folder + ": index.html cannot be read" +
                                 (error ? " (" + error.message() + ")" : ""));
    }
    files_["/"] = index->second;
}

Reply PageFiles::Find(const Request& request) const {
    const File& file = files_.at(request.path);
    Reply reply;
    reply.headers = {{"ETag", file.tag}, {"Cache-Control", "no-cache"}};
    if (request.Header("if-none-match").find(file.tag) != std::string::npos) {
        reply.status = 304;
        return reply;
    }
    reply.type = file.type;
    reply.body = file.content;
    return reply;
}

std::string DefaultPageFolder() {
    if (const char* const folder = std::getenv("CALVANE_WEB_PAGE"); folder != nullptr && *folder != '\0') {
        return folder;
    }
    std::error_code error;
    const fs::path installed =
        fs::read_symlink("/proc/self/exe", error).parent_path() / CALVANE_PAGE_FROM_BIN;
    return fs::exists(installed / "index.html", error) ? installed.lexically_normal().string()
                                                       : CALVANE_SOURCE_PAGE;
}

} // namespace calvane_web
