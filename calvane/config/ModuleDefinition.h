#pragma once

#include <cstdint>

#include "calvane/Export.h"
#include "calvane/Version.h"
#include "calvane/graph/IPluginConfiguration.h"

namespace quarn::calvane {
class CalvaneEnv;
class PipelinePlugin;
} // namespace quarn::calvane

/// The version of the framework that a module was built against, as the module exports it. The layout is part
/// of the binary interface.
struct CalvaneModuleDefinition {
    std::uint16_t major;
    std::uint16_t minor;
    std::uint16_t patch;
};

/// Stands once in every module.
#define CALVANE_DEFINE_MODULE()                                                                       \
    extern "C" [[gnu::visibility("default")]] const CalvaneModuleDefinition gCalvaneModuleDefinition; \
    const CalvaneModuleDefinition gCalvaneModuleDefinition = {                                        \
        quarn::calvane::kVersionMajor, quarn::calvane::kVersionMinor, quarn::calvane::kVersionPatch}

/// Exports a plugin type of a module under the name of its class, which must have a constructor that takes
/// `CalvaneEnv*` and `const IPluginConfiguration&`. Stands outside any namespace; `Class` is the bare name,
/// `Scope` what comes before it, for example `CALVANE_EXPORT_PLUGIN(maker::, Brighten)`.
#define CALVANE_EXPORT_PLUGIN(Scope, Class)                                                                 \
    extern "C" [[gnu::visibility("default")]] quarn::calvane::PipelinePlugin* CalvaneCreatePlugin__##Class( \
        quarn::calvane::CalvaneEnv* env, const quarn::calvane::IPluginConfiguration& config) {              \
        return new Scope Class(env, config);                                                                \
    }                                                                                                       \
    static_assert(true, "")

/// Declares what plugins of a type of this module take, give and read, so that descriptions can be checked and
/// the type can be shown without loading the module. Stands outside any namespace; `Text` is a string literal,
/// see quarn::calvane::PluginDeclaration for its form. Optional.
#define CALVANE_DECLARE_PLUGIN(Class, Text)                                                   \
    extern "C" [[gnu::visibility("default")]] const char CalvanePluginDeclaration__##Class[]; \
    const char CalvanePluginDeclaration__##Class[] = Text
