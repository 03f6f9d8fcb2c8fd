#pragma once

#include <optional>
#include <string>
#include <vector>

#include "calvane/Export.h"
#include "calvane/graph/PluginThreading.h"

namespace quarn::calvane {

enum class SettingKind {
    Text,
    Path,    ///< Of a file.
    Integer, ///< Decimal.
    Flag,    ///< An integer: 0 is off, anything else is on.
    Choice,  ///< One of a few words, in small or capital letters.
};

/// One setting that plugins of a type read.
struct SettingDeclaration {
    /// The key. One that ends in `*` stands for all keys that begin with what is before it.
    std::string key;
    SettingKind kind = SettingKind::Text;
    std::string unit; ///< Empty: none.
    bool isRequired = false;
    std::string defaultValue; ///< As it would be written; empty when the setting is required.
    bool hasRange = false;
    long long least = 0; ///< This and the next one: of an integer with a range, both included.
    long long most = 0;
    std::vector<std::string> choices;
    std::string summary; ///< One line of text.
};

/// An upper bound of the product of integer settings, for example of the memory of a pool.
struct ProductLimit {
    struct Factor {
        std::string key;
        long long unit = 1; ///< The value counts in units of so many, begun ones too.
    };
    std::vector<Factor> factors;
    long long most = 0;
    std::string fault; ///< The error text when it is exceeded.
};

/// What a plugin type declares about its plugins, so that descriptions can be checked without making one.
///
/// The text of a declaration is an INI file. A group "plugin" has the keys below, and each setting has a group
/// "setting KEY":
///
///     [plugin]
///     summary = Reads a file in blocks      ; one line; required
///     inputs = default                      ; none unless given
///     outputs = -                           ; names; - is the output without a name; * any name; none unless given
///     generates = yes                       ; can be the head of a pipeline; no unless given
///     threads = one                         ; one (unless given), any or own, see PluginThreading
///     limit = blocks * block.bytes / 64 <= 67108863, TEXT   ; see ProductLimit; optional
///
///     [setting buffer.blocksize.bytes]
///     kind = integer                        ; text (unless given), path, integer, flag or choice
///     unit = bytes                          ; optional
///     default = 1024                        ; empty unless given
///     required = yes                        ; instead of a default
///     range = 1 to 2147483647               ; of an integer; optional
///     choices = truncate, append            ; of a choice
///     summary = Bytes of one block          ; one line; required
class CALVANE_API PluginDeclaration {
public:
    /// Throws Exception "Declaration of plugin type TYPE:LINE: " and what is wrong.
    static PluginDeclaration Parse(const std::string& type, const std::string& text);

    /// The declaration of `key`, or null when plugins of this type do not read it.
    const SettingDeclaration* FindSetting(const std::string& key) const;
    bool HasOutput(const std::string& name) const;
    /// "an output without a name" or "outputs ramp, stripes", for error texts.
    std::string DescribeOutputs() const;
    /// Why `value` is none of `setting`, or an empty text.
    static std::string FindFault(const SettingDeclaration& setting, const std::string& value);

    std::string type;
    std::string summary;
    std::vector<std::string> inputs;
    std::vector<std::string>
        outputs; ///< An empty name stands for the output without a name, "*" for any name.
    bool generates = false;
    PluginThreading threading = PluginThreading::One;
    std::vector<SettingDeclaration> settings; ///< In the order declared.
    std::vector<ProductLimit> limits;
};

/// The words by which declarations name kinds.
CALVANE_API const char* ToText(SettingKind kind);

/// Reads a decimal integer, perhaps with a sign, that makes up the whole text.
CALVANE_API std::optional<long long> ParseInteger(const std::string& text);

} // namespace quarn::calvane
