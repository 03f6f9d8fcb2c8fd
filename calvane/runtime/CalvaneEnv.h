#pragma once

#include <memory>
#include <string>

#include "calvane/Export.h"
#include "calvane/Version.h"

namespace quarn::core {
class IMemoryAllocator;
}
namespace quarn::msgbus {
class MsgBus;
}
namespace quarn::settings {
class QuarnSettingsClient;
}

namespace quarn::calvane {

class IPipelineReporter;

/// What the plugins of one plugin manager share: allocators, the reporter of failures, the settings client,
/// one message bus, objects by which plugins find each other, and entries of the watchdog.
///
/// Threads:   any, from construction on.
/// Ownership: named with each operation. Whatever is returned stays the environment's, or its owner's.
/// Lifetime:  lives at least as long as every plugin that was made with it.
class CALVANE_API CalvaneEnv {
public:
    /// An object that plugins share by name. Its plugin owns it.
    class CALVANE_API PluginComm {
    public:
        virtual ~PluginComm() = default;
    };

    /// Failures are reported to nobody.
    CalvaneEnv();
    /// `ownsReporter`: `reporter` is deleted with the environment.
    CalvaneEnv(IPipelineReporter* reporter, bool ownsReporter);
    virtual ~CalvaneEnv();
    CalvaneEnv(const CalvaneEnv&) = delete;
    CalvaneEnv& operator=(const CalvaneEnv&) = delete;

    /// Throws Exception "NAME expects version ... of calvane, which is incompatible with the current version
    /// of 1.3.0" unless major is 1 and minor at most 3. A newer patch level is accepted with a line in the
    /// log.
    static void AssertVersionCompatible(const std::string& name, unsigned short major, unsigned short minor,
                                        unsigned short patch);

    /// The first allocator with all the properties of `props` (see core::AllocatorProps): the heap where it
    /// suffices, otherwise contiguous memory where the system has it. Throws Exception "No default allocator
    /// supports properties 0x...".
    core::IMemoryAllocator* GetDefaultAllocator(int props);
    /// Takes over `allocator`, also when it throws, and returns it. It is deleted with the environment.
    core::IMemoryAllocator* AddPrivateAllocator(core::IMemoryAllocator* allocator);

    IPipelineReporter* GetPipelineReporter();
    settings::QuarnSettingsClient* GetQuarnSettingsClient();
    /// The bus, made on the first call.
    msgbus::MsgBus* GetMsgBusPtr();

    /// The flag of a new entry of the watchdog, or null when there is no room. `name` must live as long as
    /// the entry. See MonitorThread.
    bool* AddMonitorEntry(const char* name);
    void DeleteMonitorEntry(bool* entry);

    /// Registers `object` and returns it. When the name is taken, deletes `object`, unless it is the
    /// registered one itself, and returns the registered one. A registered object stays its plugin's.
    PluginComm* AddCommObject(const std::string& name, PluginComm* object);
    /// The object registered under `name`, or null.
    PluginComm* GetCommObject(const std::string& name);

private:
    class CalvaneEnvImpl;
    const std::unique_ptr<CalvaneEnvImpl> impl_;
};

} // namespace quarn::calvane
