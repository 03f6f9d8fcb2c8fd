#pragma once

#include <cstdint>

/// Counts what operator new is called for, in the libraries too, while it lives. One at a time.
class AllocationCount {
public:
    AllocationCount();
    ~AllocationCount();
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;

    /// The allocations since construction, on all threads.
    uint64_t Get() const;
};
