#include "api/PageFiles.h"

#define XXH_INLINE_ALL // Its code is small, and its library then not needed.
#define ZLIB_CONST     // Input is not written to.
#include <xxhash.h>
#include <zlib.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

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

std::string Pack(const std::string& content) {
    constexpr int kGzip = 15 + 16; // The largest window, and the header of gzip.
    constexpr int kMemory = 8;     // What zlib takes by default.
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, kGzip, kMemory, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::bad_alloc();
    }
    std::string packed(deflateBound(&stream, content.size()), '\0');
    stream.next_in = reinterpret_cast<const Bytef*>(content.data());
    stream.avail_in = static_cast<uInt>(content.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    const int result = deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) {
        throw std::runtime_error("Cannot compress the page");
    }
    return packed;
}

} // namespace

PageFiles::PageFiles(const std::string& folder, const std::string& home) {
    std::error_code error;
    std::size_t size = 0;
    for (auto each = fs::recursive_directory_iterator(folder, error);
         !error && each != fs::recursive_directory_iterator(); each.increment(error)) {
        const auto type = Types().find(each->path().extension().string());
        const bool isOther = each->path().extension() == ".html" && each->path().filename() != home;
        if (!each->is_regular_file() || type == Types().end() || isOther) {
            continue;
        }
        std::string content = Read(each->path());
        size += content.size();
        if (size > kLargestPage) {
            throw std::runtime_error("The files of the page in " + folder + " are larger than 1 MiB");
        }
        files_["/" + fs::relative(each->path(), folder).generic_string()] =
            std::make_shared<const File>(MakeFile(std::move(content), type->second));
    }
    if (!Has("/" + home)) {
        throw std::runtime_error("There is no page in " + folder + ": " + home + " cannot be read" +
                                 (error ? " (" + error.message() + ")" : ""));
    }
    AddVersion("/" + home);
}

PageFiles::File PageFiles::MakeFile(std::string content, const std::string& type) {
    std::string packed = Pack(content);
    std::string tag = TagOf(content);
    return {std::move(content), std::move(packed), type, std::move(tag)};
}

void PageFiles::AddVersion(const std::string& home) {
    std::string tags;
    for (const auto& [path, file] : files_) {
        tags += path + file->tag;
    }
    version_ = "/v-" + TagOf(tags).substr(1, 16) + "/";
    const auto files = files_;
    for (const auto& [path, file] : files) {
        files_[version_ + path.substr(1)] = file;
    }
    const File& index = *files.at(home);
    std::string content = index.content;
    constexpr std::string_view kFrom = "=\"v/";
    const std::string to = "=\"" + version_.substr(1);
    for (std::size_t at = 0; (at = content.find(kFrom, at)) != std::string::npos; at += to.size()) {
        content.replace(at, kFrom.size(), to);
    }
    files_["/"] = files_[home] = std::make_shared<const File>(MakeFile(std::move(content), index.type));
}

Reply PageFiles::Find(const Request& request) const {
    const File& file = *files_.at(request.path);
    const bool isFixed = request.path.compare(0, version_.size(), version_) == 0;
    Reply reply;
    reply.headers = {{"ETag", "W/" + file.tag},
                     {"Cache-Control", isFixed ? "max-age=31536000, immutable" : "no-cache"},
                     {"Vary", "Accept-Encoding"}};
    if (request.Header("if-none-match").find(file.tag) != std::string::npos) {
        reply.status = 304;
        return reply;
    }
    reply.type = file.type;
    const bool isPacked = request.Header("accept-encoding").find("gzip") != std::string::npos;
    reply.body = isPacked ? file.packed : file.content;
    if (isPacked) {
        reply.headers.emplace("Content-Encoding", "gzip");
    }
    return reply;
}

std::string DefaultPageFolder() {
    if (const char* const folder = std::getenv("CALVANE_WEB_PAGE"); folder != nullptr && *folder != '\0') {
        return folder;
    }
    std::error_code error;
    const fs::path programs = fs::read_symlink("/proc/self/exe", error).parent_path();
    const fs::path fromLibexec = programs / CALVANE_PAGE_FROM_LIBEXEC;
    const fs::path folder =
        fs::exists(fromLibexec / "index.html", error) ? fromLibexec : programs / CALVANE_PAGE_FROM_BIN;
    return folder.lexically_normal().string();
}

} // namespace calvane_web
