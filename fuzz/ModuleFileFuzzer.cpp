// Any bytes are either refused, with their name in the text, or are a module with a version and types.

#include <cstddef>
#include <cstdint>
#include <string>

#include "Require.h"
#include "calvane/config/ModuleFile.h"
#include "quarn/osa/Exception.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        const std::string bytes(reinterpret_cast<const char*>(data), size);
        const auto file = quarn::calvane::ModuleFile::FromBytes(bytes, "name.so");
        for (const std::string& type : file.GetTypes()) {
            REQUIRE(!type.empty());
            REQUIRE(bytes.find(type) != std::string::npos);
        }
    } catch (const quarn::osa::Exception& refusal) {
        REQUIRE(std::string(refusal.what()).find("name.so") != std::string::npos);
    }
    return 0;
}
