#include "quarn/osa/FormatText.h"

#include <cstdio>
#include <cstring>
#include <system_error>

namespace quarn::osa {

std::string FormatTextV(const char* format, va_list arguments) {
    char shortText[256];
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(shortText, sizeof shortText, format, arguments);
    std::string text;
    if (length < 0) {
        text = format; // An argument that the C library cannot convert must not cost the message.
    } else if (static_cast<size_t>(length) < sizeof shortText) {
        text.assign(shortText, static_cast<size_t>(length));
    } else {
        text.resize(static_cast<size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        text.pop_back();
    }
    va_end(again);
    return text;
}

std::string FormatText(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = FormatTextV(format, arguments);
    va_end(arguments);
    return text;
}

std::string ErrnoText(int code) {
    return std::generic_category().message(code);
}

} // namespace quarn::osa
