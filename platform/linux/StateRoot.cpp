#include <cstdlib>
#include <string>

#include "platform/linux/StateRoot.hpp"

namespace vontu::platform::linux_host {

namespace fs = std::filesystem;

fs::path resolveHome(const fs::path& explicitHome) {
    if (!explicitHome.empty()) return fs::absolute(explicitHome);
    auto fromEnv = [](const char* name) -> std::string {
        const char* value = std::getenv(name);
        return value != nullptr ? value : "";
    };
    if (auto home = fromEnv("VONTU_HOME"); !home.empty()) return fs::absolute(home);
    if (auto data = fromEnv("XDG_DATA_HOME"); !data.empty()) return fs::path(data) / "vontu";
    return fs::path(fromEnv("HOME")) / ".local" / "share" / "vontu";
}

}  // namespace vontu::platform::linux_host
