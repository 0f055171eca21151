#include "platform/linux/ModuleLoader.hpp"

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

namespace vontu::platform::linux_host {

namespace {

std::vector<std::string> moduleCandidates(const ModuleSpec& module) {
    if (const char* explicitPath = std::getenv(module.environmentVariable);
        explicitPath != nullptr && *explicitPath != '\0') {
        return {explicitPath};
    }
    std::vector<std::string> candidates;
    std::error_code error;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        auto directory = executable.parent_path();
        candidates.push_back(directory / module.fileName);
        candidates.push_back(directory / ".." / "lib" / "vontu" / module.fileName);
        candidates.push_back(directory / ".." / "lib" / module.fileName);
    }
    if (module.buildPath != nullptr && *module.buildPath != '\0') candidates.emplace_back(module.buildPath);
    // A bare file name lets the dynamic linker search LD_LIBRARY_PATH and its cache.
    candidates.emplace_back(module.fileName);
    return candidates;
}

}  // namespace

void* loadModuleSymbol(const ModuleSpec& module) {
    for (const auto& candidate : moduleCandidates(module)) {
        void* handle = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) continue;
        if (void* symbol = dlsym(handle, module.symbol); symbol != nullptr) return symbol;
        dlclose(handle);
    }
    return nullptr;
}

}  // namespace vontu::platform::linux_host
