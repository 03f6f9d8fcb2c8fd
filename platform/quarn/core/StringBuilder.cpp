#include "quarn/core/StringBuilder.h"

namespace quarn::core {

StringBuilder::StringBuilder() = default;

StringBuilder::StringBuilder(const std::string& text) : text_(text) {}

StringBuilder& StringBuilder::operator<<(const char* text) {
    if (text != nullptr) {
        text_ += text;
    }
    return *this;
}

StringBuilder& StringBuilder::operator<<(const std::string& text) {
    text_ += text;
    return *this;
}

StringBuilder& StringBuilder::operator<<(char character) {
    text_ += character;
    return *this;
}

StringBuilder& StringBuilder::operator<<(int number) {
    return *this << std::to_string(number);
}

StringBuilder& StringBuilder::operator<<(unsigned int number) {
    return *this << std::to_string(number);
}

StringBuilder& StringBuilder::operator<<(long number) {
    return *this << std::to_string(number);
}

StringBuilder& StringBuilder::operator<<(unsigned long number) {
    return *this << std::to_string(number);
}

StringBuilder& StringBuilder::operator<<(long long number) {
    return *this << std::to_string(number);
}

StringBuilder& StringBuilder::operator<<(unsigned long long number) {
    return *this << std::to_string(number);
}

} // namespace quarn::core
