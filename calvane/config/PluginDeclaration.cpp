#include "calvane/config/PluginDeclaration.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "calvane/config/NearestName.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

namespace {

using core::StringUtil;

constexpr char kPluginGroup[] = "plugin";
constexpr char kSettingPrefix[] = "setting ";
constexpr char kUnnamedOutput[] = "-";
constexpr char kAnyOutput[] = "*";

constexpr std::array<std::pair<const char*, SettingKind>, 5> kKinds{{{"text", SettingKind::Text},
                                                                     {"path", SettingKind::Path},
                                                                     {"integer", SettingKind::Integer},
                                                                     {"flag", SettingKind::Flag},
                                                                     {"choice", SettingKind::Choice}}};
constexpr std::array<std::pair<const char*, PluginThreading>, 3> kThreads{
    {{"one", PluginThreading::One}, {"any", PluginThreading::Any}, {"own", PluginThreading::Own}}};
constexpr std::array<std::pair<const char*, bool>, 2> kAnswers{{{"no", false}, {"yes", true}}};

std::vector<std::string> SplitList(const std::string& text) {
    return text.empty() ? std::vector<std::string>() : StringUtil::Split(text, ',');
}

std::string Join(const std::vector<std::string>& words) {
    std::string all;
    for (const std::string& word : words) {
        all += (all.empty() ? "" : ", ") + word;
    }
    return all;
}

bool IsWildcard(const SettingDeclaration& setting) {
    return !setting.key.empty() && setting.key.back() == '*';
}

/// Reads one declaration. Every key that it does not know is an error: a declaration is code.
class Parser {
public:
    Parser(const std::string& type, const std::string& text)
        : ini_(core::IniFile::FromText(text, "Declaration of plugin type " + type)) {
        declaration_.type = type;
    }

    PluginDeclaration Parse() {
        ReadPlugin();
        for (const std::string& group : ini_.GetGroups()) {
            if (StringUtil::StartsWith(group, kSettingPrefix)) {
                ReadSetting(group);
            } else if (group != kPluginGroup) {
                Fail(ini_.GetGroupLine(group), "unknown group " + group);
            }
        }
        return declaration_;
    }

private:
    void ReadPlugin() {
        Enter(kPluginGroup, {"summary", "inputs", "outputs", "generates", "threads", "limit"});
        declaration_.summary = Require("summary");
        declaration_.inputs = SplitList(Get("inputs"));
        for (const std::string& name : SplitList(Get("outputs"))) {
            declaration_.outputs.push_back(name == kUnnamedOutput ? "" : name);
        }
        declaration_.generates = GetWord("generates", kAnswers);
        declaration_.threading = GetWord("threads", kThreads);
        if (const std::string limit = Get("limit"); !limit.empty()) {
            ReadLimit(limit);
        }
    }

    // KEY * KEY / UNIT <= NUMBER, TEXT
    void ReadLimit(const std::string& text) {
        const size_t relation = text.find("<=");
        const size_t comma = text.find(',');
        if (relation == std::string::npos || comma == std::string::npos || comma < relation) {
            FailAt("limit", "expected KEY * KEY / UNIT <= NUMBER, TEXT");
        }
        ProductLimit limit;
        for (const std::string& factor : StringUtil::Split(text.substr(0, relation), '*')) {
            const std::vector<std::string> parts = StringUtil::Split(factor, '/');
            limit.factors.push_back({parts[0], parts.size() > 1 ? ReadInteger("limit", parts[1]) : 1});
            if (limit.factors.back().unit < 1) {
                FailAt("limit", "a unit is at least 1");
            }
        }
        limit.most = ReadInteger("limit", StringUtil::Trim(text.substr(relation + 2, comma - relation - 2)));
        limit.fault = StringUtil::Trim(text.substr(comma + 1));
        declaration_.limits.push_back(std::move(limit));
    }

    void ReadSetting(const std::string& group) {
        Enter(group, {"kind", "unit", "default", "required", "range", "choices", "summary"});
        SettingDeclaration setting;
        setting.key = group.substr(sizeof kSettingPrefix - 1);
        setting.kind = GetWord("kind", kKinds);
        setting.unit = Get("unit");
        setting.isRequired = GetWord("required", kAnswers);
        setting.defaultValue = Get("default");
        setting.choices = SplitList(Get("choices"));
        setting.summary = Require("summary");
        if (const std::string range = Get("range"); !range.empty()) {
            ReadRange(range, setting);
        }
        const std::string fault = setting.isRequired || IsWildcard(setting)
                                      ? std::string()
                                      : PluginDeclaration::FindFault(setting, setting.defaultValue);
        if (!fault.empty()) {
            FailAt("default", fault);
        }
        declaration_.settings.push_back(std::move(setting));
    }

    void ReadRange(const std::string& text, SettingDeclaration& setting) {
        const size_t word = text.find(" to ");
        if (word == std::string::npos) {
            FailAt("range", "expected NUMBER to NUMBER");
        }
        setting.hasRange = true;
        setting.least = ReadInteger("range", StringUtil::Trim(text.substr(0, word)));
        setting.most = ReadInteger("range", StringUtil::Trim(text.substr(word + 4)));
    }

    void Enter(const std::string& group, const std::vector<std::string>& known) {
        group_ = group;
        for (const auto& entry : ini_[group]) {
            if (std::find(known.begin(), known.end(), entry.first) == known.end()) {
                FailAt(entry.first, "unknown key " + entry.first + SuggestName(entry.first, known));
            }
        }
    }

    std::string Get(const std::string& key) const { return ini_.GetValueOrDefault(group_, key); }

    std::string Require(const std::string& key) const {
        if (!ini_.HasValue(group_, key)) {
            Fail(ini_.GetGroupLine(group_), "group " + group_ + " has no " + key);
        }
        return Get(key);
    }

    /// The meaning of one of a few words; the first one's where there is none.
    template <typename Meaning, size_t Count>
    Meaning GetWord(const std::string& key,
                    const std::array<std::pair<const char*, Meaning>, Count>& words) const {
        const std::string word = Get(key);
        for (const auto& [name, meaning] : words) {
            if (word.empty() || word == name) {
                return meaning;
            }
        }
        FailAt(key, "unknown word " + word);
    }

    long long ReadInteger(const std::string& key, const std::string& text) const {
        const std::optional<long long> number = ParseInteger(text);
        if (!number) {
            FailAt(key, '"' + text + "\" is not an integer");
        }
        return *number;
    }

    [[noreturn]] void FailAt(const std::string& key, const std::string& what) const {
        Fail(ini_.GetKeyLine(group_, key), what);
    }
    [[noreturn]] void Fail(unsigned int line, const std::string& what) const {
        throw osa::Exception("%s:%u: %s", ini_.GetFileName().c_str(), line, what.c_str());
    }

    const core::IniFile ini_;
    PluginDeclaration declaration_;
    std::string group_; // The one that is read.
};

std::string FindIntegerFault(const SettingDeclaration& setting, const std::string& value) {
    const std::string unit = setting.unit.empty() ? "" : " (" + setting.unit + ")";
    const std::optional<long long> number = ParseInteger(value);
    if (!number) {
        return '"' + value + "\" is not an integer" + unit;
    }
    if (setting.hasRange && (*number < setting.least || *number > setting.most)) {
        return value + " is out of range: " + std::to_string(setting.least) + " to " +
               std::to_string(setting.most) + unit;
    }
    return {};
}

} // namespace

PluginDeclaration PluginDeclaration::Parse(const std::string& type, const std::string& text) {
    return Parser(type, text).Parse();
}

const SettingDeclaration* PluginDeclaration::FindSetting(const std::string& key) const {
    const auto found = std::find_if(settings.begin(), settings.end(), [&key](const auto& setting) {
        return IsWildcard(setting)
                   ? StringUtil::StartsWith(key, setting.key.substr(0, setting.key.size() - 1))
                   : setting.key == key;
    });
    return found != settings.end() ? &*found : nullptr;
}

bool PluginDeclaration::HasOutput(const std::string& name) const {
    return std::any_of(outputs.begin(), outputs.end(), [&name](const std::string& output) {
        return output == name || (output == kAnyOutput && !name.empty());
    });
}

std::string PluginDeclaration::DescribeOutputs() const {
    if (outputs.empty()) {
        return "no output";
    }
    if (outputs.size() == 1 && outputs[0].empty()) {
        return "one output, which has no name";
    }
    return "the outputs " + Join(outputs);
}

std::string PluginDeclaration::FindFault(const SettingDeclaration& setting, const std::string& value) {
    switch (setting.kind) {
        case SettingKind::Text:
        case SettingKind::Path:
            return {};
        case SettingKind::Integer:
            return FindIntegerFault(setting, value);
        case SettingKind::Flag:
            return ParseInteger(value) ? "" : '"' + value + "\" is neither 0 (off) nor 1 (on)";
        case SettingKind::Choice:
            break;
    }
    const std::string lower = StringUtil::ToLower(value);
    const bool isChoice =
        std::any_of(setting.choices.begin(), setting.choices.end(),
                    [&](const auto& choice) { return StringUtil::ToLower(choice) == lower; });
    return isChoice
               ? ""
               : '"' + value + "\" is none of " + Join(setting.choices) + SuggestName(value, setting.choices);
}

const char* ToText(SettingKind kind) {
    const auto found = std::find_if(kKinds.begin(), kKinds.end(),
                                    [kind](const auto& known) { return known.second == kind; });
    return found != kKinds.end() ? found->first : "";
}

std::optional<long long> ParseInteger(const std::string& text) {
    long long number = 0;
    const char* const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && behind == end ? std::optional(number) : std::nullopt;
}

} // namespace quarn::calvane
