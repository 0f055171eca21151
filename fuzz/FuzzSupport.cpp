#include "fuzz/FuzzSupport.hpp"

#include <filesystem>
#include <thread>
#include <unistd.h>

namespace vontu::fuzz {

platform::linux_host::LinuxEnv& linuxEnv() {
    static platform::linux_host::LinuxEnv* env = [] {
        platform::linux_host::HostSettings settings;
        settings.home = std::filesystem::temp_directory_path() /
                        ("vontu-fuzz-" + std::to_string(::getpid()));
        auto* made = new platform::linux_host::LinuxEnv(settings);
        platform::Env::setCurrent(made);
        std::thread([made] { made->runMainLoop(); }).detach();
        return made;
    }();
    return *env;
}

}  // namespace vontu::fuzz
