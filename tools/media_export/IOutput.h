#pragma once

#include <cstddef>
#include <cstdint>

namespace calvane_export {

/// Where the bytes of a file go.
///
/// Threads: one.
/// Errors:  std::exception from every operation, which ends the export.
class IOutput {
public:
    virtual void Write(const std::uint8_t* bytes, std::size_t length) = 0;
    /// Without it a file is written from its begin to its end, as into a pipe.
    virtual bool CanSeek() const { return false; }
    /// Where the next byte goes, from the begin.
    virtual void Seek(std::uint64_t /*offset*/) {}
    virtual std::uint64_t Size() const { return 0; }
    virtual ~IOutput() = default;
};

} // namespace calvane_export
