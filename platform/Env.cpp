#include "platform/Env.hpp"

#include <atomic>
#include <charconv>
#include <cstdlib>
#include <cstdio>

namespace vontu::platform {

namespace {
std::atomic<Env*> currentEnv{nullptr};

// "15.4.1" -> (15, 4); missing parts read as 0.
std::pair<int, int> parseVersion(const std::string& version) {
    int major = 0, minor = 0;
    const char* begin = version.data();
    const char* end = begin + version.size();
    auto [afterMajor, errMajor] = std::from_chars(begin, end, major);
    if (errMajor == std::errc() && afterMajor < end && *afterMajor == '.') {
        std::from_chars(afterMajor + 1, end, minor);
    }
    return {major, minor};
}
}  // namespace

Env& Env::current() {
    Env* env = currentEnv.load(std::memory_order_acquire);
    if (env == nullptr) {
        // Using the platform before a host installed it is a programming error of the host.
        std::fputs("vontu: no platform environment installed\n", stderr);
        std::abort();
    }
    return *env;
}

Env* Env::installed() { return currentEnv.load(std::memory_order_acquire); }

void Env::setCurrent(Env* env) { currentEnv.store(env, std::memory_order_release); }

bool Env::systemVersionAtLeast(int major, int minor) {
    auto [actualMajor, actualMinor] = parseVersion(systemVersion());
    return actualMajor != major ? actualMajor > major : actualMinor >= minor;
}

}  // namespace vontu::platform

namespace vontu::platform {

std::string_view logTypeName(LogType type) {
    switch (type) {
        case LogType::debug: return "debug";
        case LogType::info: return "info";
        case LogType::error: return "error";
        case LogType::defaultType: return "default";
    }
    return "default";
}

}  // namespace vontu::platform
