#pragma once

#include <string>

#include "quarn/Export.h"

namespace quarn::osa {

/// A shared object loaded at run time. All its symbols are resolved at once, and none is offered to others.
///
/// Threads:  any.
/// Errors:   Exception with the dynamic linker's own text.
/// Lifetime: closed on destruction; nothing that came from it may be used afterwards.
class QUARN_API Module {
public:
    /// A path with a slash is used unchanged; a bare name is searched by the dynamic linker.
    explicit Module(const std::string& path);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    /// The address of a symbol; throws Exception when the module has none of that name.
    void* FindSymPtr(const std::string& symbol) const;

private:
    const std::string path_;
    void* const handle_;
};

} // namespace quarn::osa
