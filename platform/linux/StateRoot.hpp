#pragma once

#include <filesystem>

namespace vontu::platform::linux_host {

// The state root of every host: explicitHome when given, else $VONTU_HOME, else
// $XDG_DATA_HOME/vontu, else ~/.local/share/vontu.
std::filesystem::path resolveHome(const std::filesystem::path& explicitHome);

}  // namespace vontu::platform::linux_host
