#pragma once

#include <string>

#include "quarn/Export.h"

namespace quarn::core {

/// Joins texts and decimal numbers into one text: `StringBuilder(name) << ": " << count`.
///
/// Threads: one at a time.
class QUARN_API StringBuilder {
public:
    StringBuilder();
    /// Starts with `text`.
    explicit StringBuilder(const std::string& text);

    /// A null pointer appends nothing.
    StringBuilder& operator<<(const char* text);
    StringBuilder& operator<<(const std::string& text);
    /// The character itself, not its code.
    StringBuilder& operator<<(char character);
    /// Numbers are appended in decimal, whatever the locale.
    StringBuilder& operator<<(int number);
    StringBuilder& operator<<(unsigned int number);
    StringBuilder& operator<<(long number);
    StringBuilder& operator<<(unsigned long number);
    StringBuilder& operator<<(long long number);
    StringBuilder& operator<<(unsigned long long number);

    /// What was joined so far. The reference is good for as long as the builder lives.
    const std::string& ToString() const { return text_; }

private:
    std::string text_;
};

} // namespace quarn::core
