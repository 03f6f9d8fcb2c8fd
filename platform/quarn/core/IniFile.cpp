#include "quarn/core/IniFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/FormatText.h"

namespace quarn::core {

using osa::Exception;

namespace {

constexpr const char* kByteOrderMark = "\xEF\xBB\xBF";
constexpr size_t kQuotedBytes = 60; // A binary file taken for an INI file must not flood the error text.

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

std::string ReadWholeFile(const std::string& path) {
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
    if (!file) {
        throw Exception("Cannot open INI file %s: %s", path.c_str(), osa::ErrnoText(errno).c_str());
    }
    std::string text;
    char block[4096];
    for (size_t count; (count = std::fread(block, 1, sizeof block, file.get())) > 0;) {
        text.append(block, count);
    }
    if (std::ferror(file.get()) != 0) { // A directory opens well and fails here.
        throw Exception("Cannot read INI file %s: %s", path.c_str(), osa::ErrnoText(errno).c_str());
    }
    return text;
}

bool IsComment(const std::string& trimmed) {
    return !trimmed.empty() && (trimmed[0] == ';' || trimmed[0] == '#');
}

} // namespace

/// Fills an IniFile line by line.
class IniFile::Parser {
public:
    explicit Parser(IniFile& file) : file_(file) {}

    void Parse(const std::string& text) {
        size_t begin = StringUtil::StartsWith(text, kByteOrderMark) ? std::string(kByteOrderMark).size() : 0;
        while (begin < text.size()) {
            const size_t end = std::min(text.find('\n', begin), text.size());
            ++line_;
            ParseLine(text.substr(begin, end - begin));
            begin = end + 1;
        }
    }

private:
    void ParseLine(std::string line) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.find('\0') != std::string::npos) {
            Fail("NUL byte" + InGroup());
        }
        line = StringUtil::Trim(line);
        if (line.empty() || IsComment(line)) {
            return;
        }
        if (line[0] == '[') {
            ParseGroup(line);
        } else {
            ParseKey(line);
        }
    }

    void ParseGroup(const std::string& line) {
        const size_t bracket = line.find(']');
        if (bracket == std::string::npos) {
            Fail("no ] behind the name of group " + Quote(StringUtil::Trim(line.substr(1))));
        }
        const std::string name = StringUtil::Trim(line.substr(1, bracket - 1));
        const std::string rest = StringUtil::Trim(line.substr(bracket + 1));
        if (name.empty()) {
            Fail("group without a name");
        }
        if (!rest.empty() && !IsComment(rest)) {
            Fail("unexpected text " + Quote(rest) + " behind group " + Quote(name));
        }
        const auto [entry, isNew] = file_.sections_.try_emplace(name);
        if (!isNew) {
            Fail("group " + Quote(name) + " stands in line " + std::to_string(entry->second.line) +
                 " already");
        }
        file_.order_.push_back(name);
        section_ = &entry->second;
        section_->line = line_;
    }

    void ParseKey(const std::string& line) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos) {
            Fail("neither a group nor a key with a value: " + Quote(line) + InGroup());
        }
        const std::string key = StringUtil::Trim(line.substr(0, equals));
        if (key.empty()) {
            Fail("value without a key" + InGroup());
        }
        if (section_ == nullptr) {
            Fail("key " + Quote(key) + " stands before the first group");
        }
        const auto [entry, isNew] = section_->keyLines.try_emplace(key, line_);
        if (!isNew) {
            Fail("key " + Quote(key) + InGroup() + " stands in line " + std::to_string(entry->second) +
                 " already");
        }
        section_->values.emplace(key, StringUtil::Trim(line.substr(equals + 1)));
    }

    std::string InGroup() const {
        return section_ != nullptr ? " in group " + Quote(file_.order_.back()) : std::string();
    }

    static std::string Quote(const std::string& text) {
        return text.size() <= kQuotedBytes ? '"' + text + '"' : '"' + text.substr(0, kQuotedBytes) + "...\"";
    }

    [[noreturn]] void Fail(const std::string& what) const {
        throw Exception("%s:%u: %s", file_.fileName_.c_str(), line_, what.c_str());
    }

    IniFile& file_;
    unsigned int line_ = 0;
    Section* section_ = nullptr; // The last one in the file's order.
};

IniFile::IniFile(const std::string& path) : IniFile(ReadWholeFile(path), path) {}

IniFile::IniFile(const std::string& text, const std::string& name) : fileName_(name) {
    Parser(*this).Parse(text);
}

IniFile IniFile::FromText(const std::string& text, const std::string& name) {
    return {text, name};
}

const IniFile::Section* IniFile::Find(const std::string& group) const {
    const auto found = sections_.find(group);
    return found != sections_.end() ? &found->second : nullptr;
}

bool IniFile::HasGroup(const std::string& group) const {
    return Find(group) != nullptr;
}

bool IniFile::HasValue(const std::string& group, const std::string& key) const {
    return (*this)[group].count(key) != 0;
}

const std::string& IniFile::GetValue(const std::string& group, const std::string& key) const {
    const Section* const section = Find(group);
    if (section == nullptr) {
        throw Exception("%s: no group \"%s\", which should have the key \"%s\"", fileName_.c_str(),
                        group.c_str(), key.c_str());
    }
    const auto found = section->values.find(key);
    if (found == section->values.end()) {
        throw Exception("%s:%u: group \"%s\" has no key \"%s\"", fileName_.c_str(), section->line,
                        group.c_str(), key.c_str());
    }
    return found->second;
}

std::string IniFile::GetValueOrDefault(const std::string& group, const std::string& key) const {
    const Group& values = (*this)[group];
    const auto found = values.find(key);
    return found != values.end() ? found->second : std::string();
}

const IniFile::Group& IniFile::operator[](const std::string& group) const {
    static const Group empty;
    const Section* const section = Find(group);
    return section != nullptr ? section->values : empty;
}

void IniFile::SetValue(const std::string& group, const std::string& key, const std::string& value) {
    const auto found = sections_.find(group);
    if (found == sections_.end()) {
        throw Exception("%s: no group \"%s\", in which the key \"%s\" is to be set", fileName_.c_str(),
                        group.c_str(), key.c_str());
    }
    found->second.values[key] = value;
}

unsigned int IniFile::GetGroupLine(const std::string& group) const {
    const Section* const section = Find(group);
    return section != nullptr ? section->line : 0;
}

unsigned int IniFile::GetKeyLine(const std::string& group, const std::string& key) const {
    const Section* const section = Find(group);
    if (section == nullptr) {
        return 0;
    }
    const auto found = section->keyLines.find(key);
    return found != section->keyLines.end() ? found->second : 0;
}

} // namespace quarn::core
