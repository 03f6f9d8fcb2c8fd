// A module as an author writes one: a filter, and types that misbehave.

#include <stdexcept>

#include "calvane/config/ModuleDefinition.h"
#include "calvane/graph/BasicFilterPlugin.h"
#include "calvane/graph/BasicSinkPlugin.h"
#include "calvane/graph/MultiOutputFilterPlugin.h"
#include "calvane/graph/SettingException.h"

namespace test_module {

using namespace quarn::calvane;

/// Turns bits of every byte round.
class Invert : public BasicFilterPlugin {
public:
    Invert(CalvaneEnv*, const IPluginConfiguration& config)
        : BasicFilterPlugin(config), mask_(static_cast<unsigned char>(config.GetIntOrDefault("mask", 1))) {}
    void OnBuffer(const Sink*, Buffer* buffer) override {
        std::unique_ptr<Buffer> owned(buffer);
        unsigned char* const bytes = owned->GetDataForWrite();
        for (unsigned int i = 0; i != owned->GetLength(); ++i) {
            bytes[i] ^= mask_;
        }
        source->PushBuffer(owned.release());
    }

private:
    const unsigned char mask_;
};

/// Gives each output every buffer. Requires the property "width" of 640 if told to.
class Split : public MultiOutputFilterPlugin {
public:
    Split(CalvaneEnv*, const IPluginConfiguration& config) : MultiOutputFilterPlugin(config) {
        if (config.GetIntOrDefault("picky", 0) != 0) {
            BufferFormat required;
            required.Set("width", 640);
            GetSink()->SetFormat(required);
        }
    }
    void OnBuffer(const Sink*, Buffer* buffer) override {
        a_->PushBuffer(buffer->Duplicate());
        b_->PushBuffer(buffer);
    }

private:
    const std::unique_ptr<Source> a_{CreateSource("a")};
    const std::unique_ptr<Source> b_{CreateSource("b")};
};

/// Has a fault that ends the process: it goes beyond its stack.
class Crasher : public BasicSinkPlugin {
public:
    Crasher(CalvaneEnv*, const IPluginConfiguration& config) : BasicSinkPlugin(config) {}
    void OnBuffer(const Sink*, Buffer* buffer) override {
        delete buffer;
        Descend(0);
    }

private:
    static int Descend(int depth) { // NOLINT(misc-no-recursion)
        volatile char bytes[4096] = {};
        bytes[depth % 4096] = 1;
        return depth == -1 ? 0 : Descend(depth + 1) + bytes[0];
    }
};

class Thrower : public BasicFilterPlugin {
public:
    Thrower(CalvaneEnv*, const IPluginConfiguration& config) : BasicFilterPlugin(config) {
        if (config.GetIntOrDefault("setting", 0) != 0) {
            throw SettingException(config.GetPluginName(), "setting", "bad setting");
        }
        throw std::runtime_error("no camera");
    }
    void OnBuffer(const Sink*, Buffer* buffer) override { delete buffer; }
};

} // namespace test_module

CALVANE_DEFINE_MODULE();
CALVANE_EXPORT_PLUGIN(test_module::, Invert);
CALVANE_EXPORT_PLUGIN(test_module::, Split);
CALVANE_EXPORT_PLUGIN(test_module::, Thrower);
CALVANE_EXPORT_PLUGIN(test_module::, Crasher);
CALVANE_DECLARE_PLUGIN(Crasher, "[plugin]\nsummary = Ends the process\ninputs = default\n");

extern "C" [[gnu::visibility("default")]] quarn::calvane::PipelinePlugin* CalvaneCreatePlugin__Nothing(
    quarn::calvane::CalvaneEnv*, const quarn::calvane::IPluginConfiguration&);

quarn::calvane::PipelinePlugin* CalvaneCreatePlugin__Nothing(quarn::calvane::CalvaneEnv*,
                                                             const quarn::calvane::IPluginConfiguration&) {
    return nullptr;
}
