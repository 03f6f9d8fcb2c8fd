#pragma once

#include <cstddef>

namespace quarn::calvane {

/// Memory for the two objects that every buffer consists of, on cache lines of their own. They are made and
/// deleted all the time and, where a queue lies between, made on one thread and deleted on another, which is
/// what a general heap does worst.
///
/// Each thread keeps two small stacks of free blocks of each kind. Only whole stacks are exchanged with the store that
/// all threads share, or comes from there, so that a lock is taken once for many blocks. The store is
/// bounded; what does not fit goes back to the heap, and so does what a thread keeps when it ends.
///
/// In builds with the address sanitizer every block comes from the heap, for else it would not see the use of
/// a deleted buffer.
///
/// Threads: any, also while they end.
enum class Recycled { Buffer, View };

/// `bytes` is always the same for one kind. Throws std::bad_alloc.
void* TakeRecycled(Recycled kind, std::size_t bytes);
void GiveRecycled(Recycled kind, void* block) noexcept;

} // namespace quarn::calvane
