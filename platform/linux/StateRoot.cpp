#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <system_error>

#include "platform/linux/StateRoot.hpp"

namespace vontu::platform::linux_host {

namespace fs = std::filesystem;

namespace {

std::string fromEnv(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// Relative to the working directory; should that be gone, the path as it is.
fs::path absoluteOrAsIs(const fs::path& path) {
    std::error_code ec;
    auto absolute = fs::absolute(path, ec);
    return ec ? path : absolute;
}

// $HOME, or the user's home from the password database when $HOME is unset or relative.
fs::path userHome() {
    if (fs::path home = fromEnv("HOME"); home.is_absolute()) return home;
    if (const passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_dir != nullptr) {
        return entry->pw_dir;
    }
    return "/";
}

}  // namespace

fs::path resolveHome(const fs::path& explicitHome) {
    if (!explicitHome.empty()) return absoluteOrAsIs(explicitHome);
    if (auto home = fromEnv("VONTU_HOME"); !home.empty()) return absoluteOrAsIs(home);
    // A relative $XDG_DATA_HOME is to be ignored, as the base directory rules say.
    if (fs::path data = fromEnv("XDG_DATA_HOME"); data.is_absolute()) return data / "vontu";
    return userHome() / ".local" / "share" / "vontu";
}

}  // namespace vontu::platform::linux_host
