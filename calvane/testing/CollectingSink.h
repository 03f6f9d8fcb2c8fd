#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "calvane/graph/Sink.h"
#include "calvane/testing/Collected.h"
#include "calvane/testing/CountedMemory.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane::testkit {

/// A copy of a buffer, taken as it arrived.
struct ReceivedBuffer {
    std::string bytes;
    BufferFormat format;
    BufferMetadata metadata; ///< Shares objects that count their references.
    osa::TimeStruct timestamp;
};

/// The end of an output: copies each buffer that arrives, deletes it, and notes the formats announced.
///
/// Threads:   buffers and formats on any thread; Get... and Wait... from the test's.
/// Lifetime:  outlives what pushes into it.
class CollectingSink : private Sink::IBufferHandler, private Sink::IFormatHandler {
public:
    /// `requiredFormat`: sources whose format lacks any of it are refused with "Incompatible formats".
    explicit CollectingSink(const BufferFormat& requiredFormat = {}) : sink_(this) {
        sink_.SetFormat(requiredFormat);
        sink_.SetFormatHandler(this);
    }
    ~CollectingSink() override = default;

    Sink* GetSink() { return &sink_; }

    std::vector<ReceivedBuffer> GetBuffers() const { return buffers_.Get(); }
    /// Only the bytes of each buffer.
    std::vector<std::string> GetTexts() const {
        std::vector<std::string> texts;
        for (const ReceivedBuffer& buffer : GetBuffers()) {
            texts.push_back(buffer.bytes);
        }
        return texts;
    }
    /// For plugins that push from a thread of their own; see Collected::WaitFor.
    bool WaitForBuffers(std::size_t count) const { return buffers_.WaitFor(count); }
    /// In the order announced. The first is that of the moment when the output was connected.
    std::vector<BufferFormat> GetFormats() const { return formats_.Get(); }

    /// From now on each buffer is deleted and answered with an Exception of this text, as a plugin downstream
    /// would that fails. An empty text ends that.
    void FailWith(const std::string& text) {
        const std::lock_guard<std::mutex> lock(failureLock_);
        failure_ = text;
    }

private:
    void OnBuffer(const Sink*, Buffer* buffer) override {
        const std::unique_ptr<Buffer> owned(buffer);
        {
            const std::lock_guard<std::mutex> lock(failureLock_);
            if (!failure_.empty()) {
                throw osa::Exception(failure_);
            }
        }
        buffers_.Add({TextOf(*owned), owned->GetFormat(), owned->GetMetadata(), owned->GetTimestamp()});
    }
    void OnNewFormat(const Sink*, const BufferFormat& format) override { formats_.Add(format); }

    Sink sink_;
    Collected<ReceivedBuffer> buffers_;
    Collected<BufferFormat> formats_;

    std::mutex failureLock_;
    std::string failure_;
};

} // namespace quarn::calvane::testkit
