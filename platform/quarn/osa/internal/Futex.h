#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

namespace quarn::osa {

/// Sleeps while `word` holds `expected`, until woken or until `deadline` on the monotonic clock (null: no
/// limit). Returns false when the deadline passed; true says nothing about the word, so look again.
bool FutexWait(const std::atomic<uint32_t>& word, uint32_t expected, const timespec* deadline);

/// Wakes one thread that sleeps on `word`, or all.
void FutexWakeOne(const std::atomic<uint32_t>& word);
void FutexWakeAll(const std::atomic<uint32_t>& word);

} // namespace quarn::osa
