#include "quarn/osa/Module.h"

#include <dlfcn.h>

#include "quarn/osa/Exception.h"

namespace quarn::osa {

namespace {

std::string LinkerError() {
    const char* text = dlerror();
    return text != nullptr ? text : "unknown error";
}

void* Open(const std::string& path) {
    // An empty name would give the program itself.
    if (path.empty()) {
        throw Exception("Cannot load module: its path is empty");
    }
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw Exception("Cannot load module %s: %s", path.c_str(), LinkerError().c_str());
    }
    return handle;
}

} // namespace

Module::Module(const std::string& path) : path_(path), handle_(Open(path)) {}

Module::~Module() {
    dlclose(handle_);
}

void* Module::FindSymPtr(const std::string& symbol) const {
    dlerror();
    void* address = dlsym(handle_, symbol.c_str());
    if (address == nullptr) {
        throw Exception("Cannot find symbol %s in module %s: %s", symbol.c_str(), path_.c_str(),
                        LinkerError().c_str());
    }
    return address;
}

} // namespace quarn::osa
