#pragma once

#include <filesystem>

namespace vontu::platform::linux_host {

// The state root of every host: explicitHome when given, else $VONTU_HOME, else
// $XDG_DATA_HOME/vontu (when absolute), else ~/.local/share/vontu (the home from the password
// database when $HOME is unset or relative). Absolute unless the working directory is gone.
std::filesystem::path resolveHome(const std::filesystem::path& explicitHome);

}  // namespace vontu::platform::linux_host
