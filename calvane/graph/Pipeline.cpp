#include "calvane/graph/Pipeline.h"

#include <list>

#include "quarn/core/Logger.h"

namespace quarn::calvane {

class Pipeline::PipelineImpl : public PipelinePlugin::IGenerateBufferHandler,
                               public PipelinePlugin::IConnectToSinkHandler,
                               public PipelinePlugin::IGetSinkHandler {
public:
    PipelineImpl(Pipeline& owner, core::Logger& logger) : owner_(owner), logger_(logger) {}
    PipelineImpl(const PipelineImpl&) = delete;
    PipelineImpl& operator=(const PipelineImpl&) = delete;
    ~PipelineImpl() override { ReleasePlugins(); }

    void Append(PluginReference plugin) {
        if (attached_) {
            plugin.reset();
            owner_.Error("Can't append to a Pipeline after it has been attached to a Sink");
        }
        if (!plugins_.empty()) {
            Sink* const sink = plugin->GetSink();
            if (sink == nullptr) {
                plugin.reset();
                owner_.Error("Attempt to put a source plugin at the end of the pipeline");
            }
            plugins_.back()->ConnectToSink(sink);
        }
        plugins_.push_back(plugin.get());
        (void)plugin.release();
    }

    bool OnGenerateBuffer(osa::TimeStruct& next) override {
        if (plugins_.empty()) {
            logger_.Warning("GenerateBuffer called on empty pipeline");
            return false;
        }
        return plugins_.front()->GenerateBuffer(next);
    }

    void OnConnectToSink(Sink* sink) override {
        Last().ConnectToSink(sink);
        attached_ = true;
    }

    void OnConnectToSink(const std::string& sourceName, Sink* sink) override {
        Last().ConnectToSink(sourceName, sink);
        attached_ = true;
    }

    bool OnDisconnectSink(const Sink* sink) override {
        if (plugins_.empty()) {
            logger_.Warning("Tried to disconnect a Sink from an empty Pipeline");
            return false;
        }
        return plugins_.back()->DisconnectSink(sink);
    }

    Sink* OnGetSink(const std::string& sinkName) override {
        if (plugins_.empty()) {
            logger_.Warning("Tried to get Sink \"%s\" from empty pipeline", sinkName.c_str());
            return nullptr;
        }
        return plugins_.front()->GetSink(sinkName);
    }

private:
    PipelinePlugin& Last() const {
        if (plugins_.empty()) {
            owner_.Error("Can't connect a Sink to an empty Pipeline");
        }
        return *plugins_.back();
    }

    // Front to back. When a reference cannot be given back, those behind it are left alone.
    void ReleasePlugins() {
        try {
            while (!plugins_.empty()) {
                PipelinePlugin* const first = plugins_.front();
                plugins_.pop_front();
                PipelinePlugin::Destroy(first);
            }
        } catch (...) {
            logger_.Error("Failed to dispose Pipeline");
        }
    }

    Pipeline& owner_;
    core::Logger& logger_;
    std::list<PipelinePlugin*> plugins_; // One reference each.
    bool attached_ = false;
};

Pipeline::Pipeline() : PipelinePlugin("Pipeline"), impl_(std::make_unique<PipelineImpl>(*this, *logger)) {
    SetGenerateBufferHandler(impl_.get());
    SetConnectToSinkHandler(impl_.get());
    SetGetSinkHandler(impl_.get());
}

Pipeline::~Pipeline() {
    logger->Debug("Pipeline closing");
}

void Pipeline::AppendPlugin(PipelinePlugin* plugin) {
    if (plugin == nullptr) {
        Error("pPlugin must not be NULL");
    }
    impl_->Append(PluginReference(plugin));
}

} // namespace quarn::calvane
