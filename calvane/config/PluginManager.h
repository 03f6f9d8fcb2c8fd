#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "calvane/Export.h"
#include "calvane/config/IPluginFactory.h"

namespace quarn::calvane {

class CalvaneEnv;
class IPipelineReporter;

/// Makes one plugin. Used for built-in types and for the entry points of modules alike.
using PluginFactoryFunction = PipelinePlugin* (*)(CalvaneEnv* env, const IPluginConfiguration& config);

/// The factory of plugins: of built-in types, which register themselves before main, and of types that
/// modules export. It gives out one instance per name and loads every module once. A module is known by its
/// path as the configuration gives it, in errors too; FindModule says which file that is.
///
/// Threads:   CreatePlugin and LoadBuiltinPlugin from one thread at a time; plugins may be released on any.
/// Ownership: the caller owns one reference of every plugin. The manager owns none: a plugin that is gone is
///            not found by its name any more.
/// Errors:    Exception with the texts named in the operations; a failure leaves no trace but a
///            loaded module.
/// Lifetime:  plugins may be released before or after the manager is destroyed. The environment lives until
///            the last of them is gone, and so does, up to the end of the process, a module that still has
///            plugins. The reporter must outlive them all.
class CALVANE_API PluginManager : public IPluginFactory {
public:
    /// Failures of plugins are reported to nobody.
    PluginManager();
    /// `ownsReporter`: the reporter is deleted with the environment.
    PluginManager(IPipelineReporter* reporter, bool ownsReporter);

    /// Throws, each followed by what it concerns: "No registered plugin with type ", "... factory method in
    /// module ... returned threw ...", "... returned NULL", and what loading a module throws.
    /// A built-in factory that returns null gives null.
    PipelinePlugin* CreatePlugin(const IPluginConfiguration& config) override;
    ~PluginManager() override;
    PluginManager(const PluginManager&) = delete;
    PluginManager& operator=(const PluginManager&) = delete;

    /// A new instance of a built-in type, with a generated name and every setting at its default.
    PipelinePlugin* LoadBuiltinPlugin(const std::string& type);
    /// The type with the lowest number behind it that makes a free name. Throws "Unable to generate a name
    /// for type " and the type when there is none.
    std::string GeneratePluginNameForType(const std::string& type);

    /// Enters the factory of a built-in type, or replaces it. Before main, or while no manager is in use.
    static void RegisterPlugin(const std::string& type, PluginFactoryFunction factory);
    /// `declaration`: what the type declares, in the form that PluginDeclaration describes.
    static void RegisterPlugin(const std::string& type, PluginFactoryFunction factory,
                               const std::string& declaration);
    /// The names of all built-in types in ascending order.
    static std::vector<std::string> GetBuiltinTypes();
    /// The texts of the declarations of built-in types, by type.
    static std::map<std::string, std::string> GetBuiltinDeclarations();

    /// Registers a built-in type from a static object of the plugin's own source file.
    class CALVANE_API PluginAutoRegister {
    public:
        PluginAutoRegister(const std::string& type, PluginFactoryFunction factory);
        PluginAutoRegister(const std::string& type, PluginFactoryFunction factory,
                           const std::string& declaration);
    };

private:
    class PluginManagerImpl;
    const std::unique_ptr<PluginManagerImpl> impl_;
};

} // namespace quarn::calvane
