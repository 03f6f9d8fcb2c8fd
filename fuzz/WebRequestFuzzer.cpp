// Any bytes that a client of calvane-web sends are refused with a reason, waited for, or a request whose parts agree.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Require.h"
#include "api/Query.h"
#include "http/RequestHead.h"

namespace {

using namespace calvane_web;

void CheckQuery(std::string_view text) {
    try {
        Query query(text);
        // A parameter is there once, and no other one stays behind.
        for (const char* const name : {"from", "to", "at", "track"}) {
            const bool has = query.Has(name);
            const auto value = query.Take(name);
            REQUIRE(value.has_value() == has);
            REQUIRE(!value || (!value->empty() && value->find('\0') == std::string::npos));
            REQUIRE(!query.Has(name));
        }
        query.TakeTime("time", "now", 0);
        const auto number = query.TakeNumber("n", -5, 5, 0);
        REQUIRE(number >= -5 && number <= 5);
        query.RequireAllTaken();
    } catch (const std::invalid_argument& refusal) {
        REQUIRE(*refusal.what() != '\0');
    }
}

void CheckHead(std::string_view received) {
    const auto end = FindHeadEnd(received);
    const bool isWhole = IsWhole(received);
    if (!end) {
        REQUIRE(isWhole == (received.size() > kLongestHead));
        return;
    }
    try {
        const std::string head = FilterHead(received.substr(0, *end));
        REQUIRE(FindHeadEnd(head) == head.size()); // One head, and nothing hidden behind it.
        REQUIRE(FilterHead(head) == head);
        const std::size_t length = BodyLength(head);
        REQUIRE(isWhole || length > received.size() - *end);
    } catch (const std::invalid_argument& refusal) {
        REQUIRE(*refusal.what() != '\0');
        REQUIRE(isWhole); // It is not waited for.
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    CheckQuery(bytes);
    CheckHead(bytes);
    return 0;
}
