#include "quarn/osa/Exception.h"

#include <cstdarg>
#include <utility>

#include "quarn/osa/FormatText.h"

namespace quarn::osa {

Exception::Exception(std::string text) : text_(std::move(text)) {}

Exception::Exception(const char* text) : text_(text != nullptr ? text : "") {}

template <typename>
Exception::Exception(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    text_ = FormatTextV(format, arguments);
    va_end(arguments);
}

template Exception::Exception(const char* format, ...);

Exception::Exception(const Exception& other) = default;
Exception& Exception::operator=(const Exception& other) = default;
Exception::~Exception() = default;

} // namespace quarn::osa
