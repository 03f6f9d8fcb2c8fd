#pragma once

#include <string>

#include "media_export/IOutput.h"

namespace calvane_export {

/// A file that gets its name when it is whole. Until then it has a temporary one in the same folder, which is removed
/// when something goes wrong.
///
/// Errors:   std::system_error that names the path and the reason.
/// Lifetime: what was not kept is removed by the destructor.
class OutputFile : public IOutput {
public:
    /// Without `overwrite` a file of this name is an error, here and in Keep.
    OutputFile(std::string path, bool overwrite);
    ~OutputFile() override;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void Write(const std::uint8_t* bytes, std::size_t length) override;
    bool CanSeek() const override { return true; }
    void Seek(std::uint64_t offset) override { offset_ = offset; }
    std::uint64_t Size() const override { return size_; }
    /// Makes the content durable and gives the file its name.
    void Keep();

private:
    [[noreturn]] void Fail(const char* what, int error) const;
    void SyncFolder() const;

    const std::string path_;
    const bool overwrite_;
    std::string temporary_; ///< Empty when there is none any more.
    int descriptor_ = -1;
    std::uint64_t offset_ = 0;
    std::uint64_t size_ = 0;
    std::uint64_t writtenOut_ = 0; ///< Up to here the device has been told to write.
};

/// A descriptor that is written to from begin to end, such as standard output. It stays open.
class OutputDescriptor : public IOutput {
public:
    explicit OutputDescriptor(int descriptor) : descriptor_(descriptor) {}
    void Write(const std::uint8_t* bytes, std::size_t length) override;

private:
    const int descriptor_;
};

} // namespace calvane_export
