#include "quarn/osa/LockException.h"

namespace quarn::osa {

LockException::LockException(int code, const std::string& text, bool timedOut)
    : Exception(text), code_(code), timedOut_(timedOut) {}

LockException::LockException(const LockException& other) = default;
LockException::~LockException() = default;

} // namespace quarn::osa
