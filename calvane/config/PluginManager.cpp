#include "calvane/config/PluginManager.h"

#include <cstdint>
#include <limits>
#include <map>
#include <utility>

#include "calvane/config/DefaultPluginConfiguration.h"
#include "calvane/config/ModuleSearch.h"
#include "calvane/config/internal/Environment.h"
#include "calvane/config/internal/ModuleNames.h"
#include "calvane/config/internal/ModuleVersion.h"
#include "calvane/config/internal/PluginInstances.h"
#include "calvane/graph/SettingException.h"
#include "quarn/core/Logger.h"
#include "quarn/core/StringBuilder.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/Module.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::calvane {

namespace {

const char* const kLoggerName = "PluginManager";

/// A built-in type.
struct BuiltinType {
    PluginFactoryFunction factory;
    std::string declaration; // Empty: none.
};
using Registry = std::map<std::string, BuiltinType>;

// Static objects of other source files register before main, in any order, so the map is made on first use.
// It is never destroyed, since plugins may be made as late as that.
Registry& BuiltinRegistry() {
    static auto* const registry = new Registry();
    return *registry;
}

/// A module whose version has been found to fit. Errors name it by `path`, as the configuration does; the code
/// comes from `file`.
class PluginModule {
public:
    PluginModule(const std::string& path, const std::string& file) : path_(path), module_(file) {
        const auto* version = static_cast<const uint16_t*>(module_.FindSymPtr(kDefinitionSymbol));
        AssertModuleVersionCompatible(path, version[0], version[1], version[2]);
    }

    PipelinePlugin* Create(const std::string& type, CalvaneEnv* env,
                           const IPluginConfiguration& config) const {
        const auto entryPoint =
            reinterpret_cast<PluginFactoryFunction>(module_.FindSymPtr(kEntryPointPrefix + type));
        PipelinePlugin* const plugin = Call(entryPoint, type, env, config);
        if (plugin == nullptr) {
            throw osa::Exception(type + " factory method in module " + path_ + " returned NULL");
        }
        return plugin;
    }

private:
    PipelinePlugin* Call(PluginFactoryFunction entryPoint, const std::string& type, CalvaneEnv* env,
                         const IPluginConfiguration& config) const {
        const std::string complaint = type + " factory method in module " + path_ + " returned threw ";
        try {
            return entryPoint(env, config);
        } catch (const SettingException& error) {
            throw SettingException(error.GetGroup(), error.GetKey(), complaint + error.what());
        } catch (const std::exception& error) {
            throw osa::Exception(complaint + error.what());
        }
    }

    const std::string path_;
    const osa::Module module_;
};

/// Modules by their path as the configuration gave it.
using ModuleCollection = std::map<std::string, std::unique_ptr<PluginModule>>;

// Keeps a module until the process ends.
void KeepLoaded(std::unique_ptr<PluginModule> module) {
    static auto* const lock = new osa::Mutex("KeptModules");
    static auto* const kept = new std::vector<std::unique_ptr<PluginModule>>();
    const osa::MutexAutoLock guard(*lock);
    kept->push_back(std::move(module));
}

} // namespace

class PluginManager::PluginManagerImpl {
public:
    explicit PluginManagerImpl(std::shared_ptr<CalvaneEnv> environment)
        : env_(std::move(environment)), instances_(std::make_shared<PluginInstances>()) {}
    PluginManagerImpl(const PluginManagerImpl&) = delete;
    PluginManagerImpl& operator=(const PluginManagerImpl&) = delete;

    ~PluginManagerImpl() {
        env_.reset();
        for (auto& [path, module] : modules_) {
            Unload(path, std::move(module));
        }
    }

    PipelinePlugin* Create(const IPluginConfiguration& config) {
        const std::string module = config.GetPluginModule();
        const std::string type = config.GetPluginType();
        const std::string name = config.GetPluginName();
        if (PipelinePlugin* const existing = instances_->Find(name)) {
            return existing;
        }
        logger_->Trace("Attempting to load plugin %s from module %s", type.c_str(), module.c_str());
        return module.empty() ? CreateBuiltin(type, name, config)
                              : CreateFromModule(module, type, name, config);
    }

    bool HasInstance(const std::string& name) const { return instances_->Contains(name); }

private:
    PipelinePlugin* CreateBuiltin(const std::string& type, const std::string& name,
                                  const IPluginConfiguration& config) {
        const auto found = BuiltinRegistry().find(type);
        if (found == BuiltinRegistry().end()) {
            throw osa::Exception("No registered plugin with type " + type);
        }
        PluginReference plugin(found->second.factory(env_.get(), config));
        if (!plugin) {
            return nullptr;
        }
        logger_->Debug("Successfully created built-in %s plugin: \"%s\".", type.c_str(), name.c_str());
        instances_->Register(name, "", *plugin, env_);
        return plugin.release();
    }

    PipelinePlugin* CreateFromModule(const std::string& module, const std::string& type,
                                     const std::string& name, const IPluginConfiguration& config) {
        PluginReference plugin(LoadModule(module).Create(type, env_.get(), config));
        logger_->Debug("Successfully created %s plugin from module %s: \"%s\".", type.c_str(), module.c_str(),
                       name.c_str());
        instances_->Register(name, module, *plugin, env_);
        return plugin.release();
    }

    const PluginModule& LoadModule(const std::string& module) {
        auto found = modules_.find(module);
        if (found == modules_.end()) {
            logger_->Debug("Loading module %s", module.c_str());
            const std::string file = FindModule(module);
            logger_->Debug("Module %s is the file %s", module.c_str(), file.c_str());
            found = modules_.emplace(module, std::make_unique<PluginModule>(module, file)).first;
        }
        return *found->second;
    }

    void Unload(const std::string& path, std::unique_ptr<PluginModule> module) const {
        core::Logger* const logger = core::Logger::GetLogger(kLoggerName);
        const std::string user = instances_->FindUser(path);
        if (!user.empty()) {
            logger->Warning("Module %s stays loaded: plugin %s is still in use", path.c_str(), user.c_str());
            KeepLoaded(std::move(module));
            return;
        }
        logger->Debug("Unloading module %s", path.c_str());
    }

    core::Logger* const logger_ = core::Logger::GetLogger(kLoggerName);
    ModuleCollection modules_;
    std::shared_ptr<CalvaneEnv> env_;
    const std::shared_ptr<PluginInstances> instances_;
};

PluginManager::PluginManager() : impl_(std::make_unique<PluginManagerImpl>(MakeEnvironment())) {}

PluginManager::PluginManager(IPipelineReporter* reporter, bool ownsReporter)
    : impl_(std::make_unique<PluginManagerImpl>(MakeEnvironment(reporter, ownsReporter))) {}

PluginManager::~PluginManager() = default;

PipelinePlugin* PluginManager::CreatePlugin(const IPluginConfiguration& config) {
    return impl_->Create(config);
}

PipelinePlugin* PluginManager::LoadBuiltinPlugin(const std::string& type) {
    return CreatePlugin(DefaultPluginConfiguration("", type, GeneratePluginNameForType(type)));
}

std::string PluginManager::GeneratePluginNameForType(const std::string& type) {
    for (int number = 0; number != std::numeric_limits<int>::max(); ++number) {
        core::StringBuilder name(type);
        name << number;
        if (!impl_->HasInstance(name.ToString())) {
            return name.ToString();
        }
    }
    throw osa::Exception("Unable to generate a name for type " + type);
}

void PluginManager::RegisterPlugin(const std::string& type, PluginFactoryFunction factory) {
    RegisterPlugin(type, factory, "");
}

void PluginManager::RegisterPlugin(const std::string& type, PluginFactoryFunction factory,
                                   const std::string& declaration) {
    BuiltinRegistry()[type] = {factory, declaration};
}

std::vector<std::string> PluginManager::GetBuiltinTypes() {
    std::vector<std::string> types;
    for (const auto& entry : BuiltinRegistry()) {
        types.push_back(entry.first);
    }
    return types;
}

std::map<std::string, std::string> PluginManager::GetBuiltinDeclarations() {
    std::map<std::string, std::string> declarations;
    for (const auto& [type, builtin] : BuiltinRegistry()) {
        if (!builtin.declaration.empty()) {
            declarations.emplace(type, builtin.declaration);
        }
    }
    return declarations;
}

PluginManager::PluginAutoRegister::PluginAutoRegister(const std::string& type,
                                                      PluginFactoryFunction factory) {
    RegisterPlugin(type, factory);
}

PluginManager::PluginAutoRegister::PluginAutoRegister(const std::string& type, PluginFactoryFunction factory,
                                                      const std::string& declaration) {
    RegisterPlugin(type, factory, declaration);
}

} // namespace quarn::calvane
