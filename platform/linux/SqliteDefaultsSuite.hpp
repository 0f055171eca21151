#pragma once

#include <filesystem>
#include <memory>

#include "platform/DefaultsSuite.hpp"

namespace vontu::platform::linux_host {

// Opens (creating if needed) the SQLite database that holds one defaults suite. Absent when the
// file cannot be opened or is not a usable database.
std::shared_ptr<DefaultsSuite> openSqliteDefaultsSuite(const std::filesystem::path& file);

}  // namespace vontu::platform::linux_host
