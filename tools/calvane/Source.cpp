#include "Source.h"

#include <algorithm>
#include <map>
#include <optional>

#include "calvane/config/DescriptionKeys.h"
#include "calvane/config/NearestName.h"
#include "quarn/osa/Exception.h"

namespace calvane_program {

namespace {

namespace keys = quarn::calvane::keys;
using quarn::core::IniFile;
using quarn::osa::Exception;

constexpr char kLineName[] = "<launch>"; // Stands for the file in messages.
constexpr char kNameKey[] = "name";

/// A word of a line; `quoted` where a part of it stood between quotes.
struct Word {
    std::string text;
    bool quoted = false;
};

std::vector<Word> SplitWords(const std::string& line) {
    std::vector<Word> words;
    bool inWord = false;
    bool inQuotes = false;
    for (const char letter : line) {
        if (letter == '"') {
            inQuotes = !inQuotes;
        }
        if (!inQuotes && letter != '"' && (letter == ' ' || letter == '\t' || letter == '\n')) {
            inWord = false;
            continue;
        }
        if (!inWord) {
            words.emplace_back();
            inWord = true;
        }
        if (letter == '"') {
            words.back().quoted = true;
        } else {
            words.back().text += letter;
        }
    }
    if (inQuotes) {
        throw Exception("%s: a double quote is not closed", kLineName);
    }
    return words;
}

/// Turns the words of a line into groups.
class LineParser {
public:
    explicit LineParser(const std::string& line) : words_(SplitWords(line)) {}

    std::string Parse() {
        if (words_.empty()) {
            throw Exception("%s: the line is empty", kLineName);
        }
        while (next_ != words_.size()) {
            ParseChain();
        }
        return Write();
    }

private:
    struct Plugin {
        std::string name;
        std::vector<std::pair<std::string, std::string>> values; // In the order given.
        std::vector<std::pair<std::string, std::vector<std::string>>>
            successors; // By the key that lists them.
    };

    // TYPE or REFERENCE, and what follows it.
    void ParseChain() {
        size_t last = 0;
        std::string output;
        const std::string& first = words_[next_].text;
        if (first.find('.') != std::string::npos && first.find('=') == std::string::npos) {
            last = FindPlugin(first);
            output = first.substr(plugins_[last].name.size() + 1);
            ++next_;
            if (next_ == words_.size() || !IsArrow(next_)) {
                throw Exception("%s: expected ! behind \"%s\"", kLineName, first.c_str());
            }
        } else {
            last = ParsePlugin();
            heads_.push_back(last);
        }
        while (next_ != words_.size() && IsArrow(next_)) {
            ++next_;
            const size_t successor = ParsePlugin();
            Connect(last, output, successor);
            output.clear();
            last = successor;
        }
    }

    size_t ParsePlugin() {
        if (next_ == words_.size() || IsArrow(next_)) {
            throw Exception("%s: a plugin type is missing %s", kLineName,
                            next_ == 0 ? "at the beginning" : "behind a !");
        }
        const std::string type = words_[next_++].text;
        if (type.find('=') != std::string::npos) {
            throw Exception("%s: expected a plugin type before \"%s\"", kLineName, type.c_str());
        }
        Plugin plugin;
        plugin.values.emplace_back(keys::kPluginType, type);
        for (; next_ != words_.size() && !IsArrow(next_); ++next_) {
            const std::string& word = words_[next_].text;
            const size_t equals = word.find('=');
            if (equals == std::string::npos) {
                break; // The next chain.
            }
            if (word.substr(0, equals) == kNameKey) {
                plugin.name = word.substr(equals + 1);
            } else {
                plugin.values.emplace_back(word.substr(0, equals), word.substr(equals + 1));
            }
        }
        if (plugin.name.empty()) {
            plugin.name = type + std::to_string(numbers_[type]++);
        }
        plugins_.push_back(plugin);
        return plugins_.size() - 1;
    }

    bool IsArrow(size_t word) const { return words_[word].text == "!" && !words_[word].quoted; }

    // NAME. or NAME.OUTPUT, where NAME may have dots: the longest name counts.
    size_t FindPlugin(const std::string& reference) const {
        std::vector<std::string> names;
        std::optional<size_t> found;
        for (size_t i = 0; i != plugins_.size(); ++i) {
            const std::string& name = plugins_[i].name;
            names.push_back(name);
            if (reference.compare(0, name.size() + 1, name + ".") == 0 &&
                (!found || name.size() > plugins_[*found].name.size())) {
                found = i;
            }
        }
        if (!found) {
            const std::string name = reference.substr(0, reference.rfind('.'));
            throw Exception("%s: no plugin before is named %s%s", kLineName, name.c_str(),
                            quarn::calvane::SuggestName(name, names).c_str());
        }
        return *found;
    }

    void Connect(size_t from, const std::string& output, size_t to) {
        const std::string key = output.empty() ? keys::kNext : keys::kNextPrefix + output;
        auto& lists = plugins_[from].successors;
        auto list = std::find_if(lists.begin(), lists.end(),
                                 [&key](const auto& known) { return known.first == key; });
        if (list == lists.end()) {
            list = lists.insert(lists.end(), {key, {}});
        }
        list->second.push_back(plugins_[to].name);
    }

    std::string Write() const {
        std::string names;
        std::string groups;
        for (size_t i = 0; i != heads_.size(); ++i) {
            const std::string name = heads_.size() == 1 ? "pipeline" : "pipeline" + std::to_string(i);
            names.append(names.empty() ? "" : ", ").append(name);
            groups.append("\n[").append(name).append("]\n");
            groups.append(keys::kHead).append(" = ").append(plugins_[heads_[i]].name).append("\n");
        }
        std::string text = std::string("[") + keys::kFrameworkGroup + "]\n" + keys::kPipelines + " = " +
                           names + "\n" + groups;
        for (const Plugin& plugin : plugins_) {
            text.append("\n[").append(plugin.name).append("]\n");
            for (const auto& [key, value] : plugin.values) {
                text.append(key).append(" = ").append(value).append("\n");
            }
            for (const auto& [key, successors] : plugin.successors) {
                text.append(key).append(" = ");
                for (const std::string& successor : successors) {
                    text.append(&successor == &successors.front() ? "" : ", ").append(successor);
                }
                text.append("\n");
            }
        }
        return text;
    }

    const std::vector<Word> words_;
    size_t next_ = 0;
    std::vector<Plugin> plugins_;
    std::vector<size_t> heads_;
    std::map<std::string, int> numbers_; // The next one, by type.
};

/// GROUP.KEY=VALUE. Both names may have dots; of several groups that fit, the longest name counts.
void ApplySet(IniFile& ini, const std::string& set) {
    const size_t equals = set.find('=');
    const std::string place = set.substr(0, equals);
    std::string group;
    for (const std::string& candidate : ini.GetGroups()) {
        if (candidate.size() > group.size() && place.size() > candidate.size() + 1 &&
            place.compare(0, candidate.size() + 1, candidate + ".") == 0) {
            group = candidate;
        }
    }
    if (equals == std::string::npos || place.find('.') == std::string::npos) {
        throw Exception("--set %s: expected GROUP.KEY=VALUE", set.c_str());
    }
    if (group.empty()) {
        const std::string named = place.substr(0, place.find('.'));
        throw Exception("--set %s: %s has no group %s%s", set.c_str(), ini.GetFileName().c_str(),
                        named.c_str(), quarn::calvane::SuggestName(named, ini.GetGroups()).c_str());
    }
    ini.SetValue(group, place.substr(group.size() + 1), set.substr(equals + 1));
}

} // namespace

IniFile ReadDescription(const DescriptionSource& source) {
    IniFile ini = source.isLine ? IniFile::FromText(ToIni(source.file), kLineName) : IniFile(source.file);
    for (const std::string& set : source.sets) {
        ApplySet(ini, set);
    }
    return ini;
}

std::string ToIni(const std::string& line) {
    return LineParser(line).Parse();
}

std::string ToText(const IniFile& ini) {
    std::string text;
    for (const std::string& group : ini.GetGroups()) {
        text.append(text.empty() ? "[" : "\n[").append(group).append("]\n");
        for (const auto& [key, value] : ini[group]) {
            text.append(key).append(" = ").append(value).append("\n");
        }
    }
    return text;
}

} // namespace calvane_program
