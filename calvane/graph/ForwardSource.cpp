#include "calvane/graph/ForwardSource.h"

namespace quarn::calvane {

class ForwardSource::ForwardSourceImpl : public Sink::IBufferHandler, public Sink::IFormatHandler {
public:
    ForwardSourceImpl() : sink_(this) { sink_.SetFormatHandler(this); }

    void SetForwarded(Source* source) {
        if (source != nullptr) {
            Connect(*source);
        }
        if (forwarded_ != nullptr) {
            forwarded_->Disconnect(&sink_);
        }
        forwarded_ = source;
    }

    void SetDestination(Source* source) {
        if (source != nullptr && forwarded_ != nullptr) {
            source->SetFormat(forwarded_->GetFormat());
        }
        destination_ = source;
    }

    void OnBuffer(const Sink*, Buffer* buffer) override {
        std::unique_ptr<Buffer> owned(buffer);
        if (destination_ != nullptr) {
            destination_->PushBuffer(owned.release());
        }
    }

    void OnNewFormat(const Sink*, const BufferFormat& format) override {
        if (destination_ != nullptr) {
            destination_->SetFormat(format);
        }
    }

private:
    void Connect(Source& source) {
        source.ConnectTo(&sink_);
        try {
            OnNewFormat(&sink_, source.GetFormat());
        } catch (...) {
            source.Disconnect(&sink_);
            throw;
        }
    }

    Sink sink_;
    Source* forwarded_ = nullptr;
    Source* destination_ = nullptr;
};

ForwardSource::ForwardSource() : impl_(std::make_unique<ForwardSourceImpl>()) {}

ForwardSource::~ForwardSource() = default;

void ForwardSource::SetForwardedSource(Source* source) {
    impl_->SetForwarded(source);
}

void ForwardSource::SetDestinationSource(Source* source) {
    impl_->SetDestination(source);
}

} // namespace quarn::calvane
