// Any bytes are either refused with a line number or give groups, keys and values that agree with each other.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "Require.h"
#include "quarn/core/IniFile.h"
#include "quarn/osa/Exception.h"

namespace {

using quarn::core::IniFile;

// What IniFile tells, as a file: reading it again must give the same. Lines end in CR LF, since a value may
// end in CR.
std::string Write(const IniFile& ini) {
    std::string text;
    for (const std::string& group : ini.GetGroups()) {
        text += "[" + group + "]\r\n";
        for (const auto& [key, value] : ini[group]) {
            text += key + "=" + value + "\r\n";
        }
    }
    return text;
}

void CheckLines(const IniFile& ini) {
    unsigned int last = 0;
    for (const std::string& group : ini.GetGroups()) {
        REQUIRE(ini.HasGroup(group));
        REQUIRE(ini.GetGroupLine(group) > last);
        last = ini.GetGroupLine(group);
        for (const auto& [key, value] : ini[group]) {
            REQUIRE(ini.GetKeyLine(group, key) > last);
            REQUIRE(ini.GetValue(group, key) == value);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        const IniFile ini = IniFile::FromText({reinterpret_cast<const char*>(data), size}, "f");
        CheckLines(ini);
        const std::string written = Write(ini);
        REQUIRE(Write(IniFile::FromText(written)) == written);
    } catch (const quarn::osa::Exception& refusal) {
        REQUIRE(std::strncmp(refusal.what(), "f:", 2) == 0);
    }
    return 0;
}
