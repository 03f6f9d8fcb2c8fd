#pragma once

#include <ios>
#include <string>

#include "calvane/Export.h"
#include "calvane/graph/BasicSinkPlugin.h"

namespace quarn::calvane {

/// Writes the bytes of every buffer to one file, one behind the other.
///
/// Settings: "filename" (required); "openmode" ("truncate" or "append", in any case; truncate);
///           "start.count" and "end.count" (0): unless they are equal, only the buffers whose number, from 1,
///           lies between the two and is neither of them are written, and the file is closed behind the last.
///
/// The file is opened for the first buffer that is written, and every write goes to the system at once: what
/// OnBuffer has taken is not lost when the process ends.
///
/// Threads:   one at a time.
/// Errors:    construction throws "NAME: You must provide a valid setting for filename" or "Invalid openmode:
///            ..."; OnBuffer throws "Failed to open file ..." or "Failed to write file ..." and deletes the
///            buffer, and the next buffer tries again.
class CALVANE_API FileSink : public BasicSinkPlugin {
public:
    explicit FileSink(const IPluginConfiguration& config);
    ~FileSink() override;

    void OnBuffer(const Sink* sink, Buffer* buffer) override;

    /// The mode that the text names; throws Exception "Invalid openmode: " and the text.
    static std::ios_base::openmode ParseOpenMode(const std::string& mode);

private:
    bool IsInRange();
    void Write(const Buffer& buffer);
    void OpenUnlessOpen();
    void Close();

    const std::string fileName_;
    int file_ = -1; // Not a stream: what that buffers is lost when the process ends, and unnoticed.
    const std::ios_base::openmode openMode_;
    const int startCount_;
    const int endCount_;
    long long bufferCount_ = 0; // 32 bits would last 25 days at 1,000 buffers a second.
};

} // namespace quarn::calvane
