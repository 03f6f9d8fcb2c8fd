#pragma once

#include <memory>

#include "calvane/config/DefaultPluginConfiguration.h"
#include "calvane/graph/BasicFilterPlugin.h"
#include "calvane/graph/BasicSinkPlugin.h"
#include "calvane/graph/BasicSourcePlugin.h"
#include "quarn/core/BufferPoolAllocator.h"
#include "quarn/core/StandardHeapAllocator.h"

// The smallest plugins that do what their benchmarks are about.

constexpr unsigned int kBufferBytes = 64;

/// Makes one small buffer per call, from a pool as file sources have it: with all its blocks on the way, it
/// waits.
class PoolSource : public quarn::calvane::BasicSourcePlugin {
public:
    explicit PoolSource(unsigned int poolBlocks)
        : BasicSourcePlugin(quarn::calvane::DefaultPluginConfiguration("PoolSource")),
          pool_(&heap_, kBufferBytes, poolBlocks, true) {}

    bool OnGenerateBuffer(quarn::osa::TimeStruct&) override {
        auto buffer = std::make_unique<quarn::calvane::Buffer>(pool_.Allocate(kBufferBytes), format_);
        source->PushBuffer(buffer.release());
        return true;
    }

private:
    const quarn::calvane::BufferFormat format_;
    quarn::core::StandardHeapAllocator heap_{0};
    quarn::core::BufferPoolAllocator pool_;
};

class PassThrough : public quarn::calvane::BasicFilterPlugin {
public:
    PassThrough() : BasicFilterPlugin(quarn::calvane::DefaultPluginConfiguration("PassThrough")) {}
    void OnBuffer(const quarn::calvane::Sink*, quarn::calvane::Buffer* buffer) override {
        source->PushBuffer(buffer);
    }
};

class DeletingSink : public quarn::calvane::BasicSinkPlugin {
public:
    DeletingSink() : BasicSinkPlugin(quarn::calvane::DefaultPluginConfiguration("DeletingSink")) {}
    void OnBuffer(const quarn::calvane::Sink*, quarn::calvane::Buffer* buffer) override {
        const std::unique_ptr<quarn::calvane::Buffer> owned(buffer);
    }
};

/// Keeps the last buffer, to be pushed again.
class KeepingSink : public quarn::calvane::BasicSinkPlugin {
public:
    KeepingSink() : BasicSinkPlugin(quarn::calvane::DefaultPluginConfiguration("KeepingSink")) {}
    void OnBuffer(const quarn::calvane::Sink*, quarn::calvane::Buffer* buffer) override {
        kept_.reset(buffer);
    }
    quarn::calvane::Buffer* Take() { return kept_.release(); }

private:
    std::unique_ptr<quarn::calvane::Buffer> kept_;
};
