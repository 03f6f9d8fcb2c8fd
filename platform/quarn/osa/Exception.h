#pragma once

#include <exception>
#include <string>

#include "quarn/Export.h"

namespace quarn::osa {

/// The failure that every operation of the platform and of the framework throws.
///
/// Threads: immutable after construction; a copy shares nothing with what it was copied from.
/// Errors:  a finished text is taken unchanged, percent signs included. Only the form with arguments
///          reads its first argument as a printf format, and the compiler checks it.
class QUARN_API Exception : public std::exception {
public:
    /// Takes a finished text, never a format.
    explicit Exception(std::string text);
    /// Takes a finished text, never a format.
    explicit Exception(const char* text);
    /// Builds the text printf-style. (A template only so that the form without arguments is preferred.)
    template <typename = void>
    [[gnu::format(printf, 2, 3)]] QUARN_API explicit Exception(const char* format, ...);

    Exception(const Exception& other);
    Exception& operator=(const Exception& other);
    ~Exception() override;

    const char* what() const noexcept override { return text_.c_str(); }

private:
    std::string text_;
};

extern template Exception::Exception(const char* format, ...);

} // namespace quarn::osa
