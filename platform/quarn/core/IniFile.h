#pragma once

#include <map>
#include <string>
#include <vector>

#include "quarn/Export.h"

namespace quarn::core {

/// The groups, keys and values of an INI file, with the lines they stand in.
///
///     ; comment                  the first character of the line, after blanks, is ; or #
///     [group]                    blanks around the name do not count; a comment may follow the bracket
///     key = value                split at the first =; blanks around key and value do not count
///
/// Names are case-sensitive. A value may be empty, of any length, and contain = ; # and quotes, which mean
/// nothing. A group may be empty. Lines end in LF or CR LF; a UTF-8 byte order mark is skipped. There is
/// no continuation and no escape.
///
/// Threads: any number of readers at once; nothing changes after construction except by assignment and
///          SetValue.
/// Errors:  Exception "file:line: what" for a group that stands twice, a key that stands twice in its group
///          (both name the first line), a key before the first group, a line that is neither, an empty group
///          or key name, a group without closing bracket, text behind the bracket, and NUL bytes; Exception
///          with path and system error for a file that cannot be opened or read.
class QUARN_API IniFile {
public:
    /// The keys of a group with their values, in ascending byte order of the keys.
    using Group = std::map<std::string, std::string>;

    /// Reads the file at `path`.
    explicit IniFile(const std::string& path);
    /// Reads `text`; `name` takes the place of the path in error texts.
    static IniFile FromText(const std::string& text, const std::string& name = "<text>");

    bool HasGroup(const std::string& group) const;
    bool HasValue(const std::string& group, const std::string& key) const;
    /// Throws Exception that names file, group and key when there is no such value.
    const std::string& GetValue(const std::string& group, const std::string& key) const;
    /// The value, or the empty text when there is none.
    std::string GetValueOrDefault(const std::string& group, const std::string& key) const;
    /// The keys and values of `group`; empty when there is no such group. Good for as long as the file lives.
    const Group& operator[](const std::string& group) const;

    /// Sets or adds a value of a group that there is. A key that is added has no line. Throws Exception that
    /// names file and group when there is no such group.
    void SetValue(const std::string& group, const std::string& key, const std::string& value);

    /// The names of all groups in the order of the file.
    const std::vector<std::string>& GetGroups() const { return order_; }
    /// The path, or the name given to FromText.
    const std::string& GetFileName() const { return fileName_; }
    /// The line of the group's head, counted from 1; 0 when there is no such group.
    unsigned int GetGroupLine(const std::string& group) const;
    /// The line of the key, counted from 1; 0 when there is no such key.
    unsigned int GetKeyLine(const std::string& group, const std::string& key) const;

private:
    class Parser;
    struct Section {
        unsigned int line = 0;
        Group values;
        std::map<std::string, unsigned int> keyLines;
    };

    IniFile(const std::string& text, const std::string& name);
    const Section* Find(const std::string& group) const;

    std::string fileName_;
    std::map<std::string, Section> sections_;
    std::vector<std::string> order_;
};

} // namespace quarn::core
