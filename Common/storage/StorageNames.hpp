#pragma once

#include <string_view>

namespace tern {

// Names under which the library keeps its state on the device.

// The library's reverse-DNS identifier, the first part of every defaults suite name. It is the
// same text as the library's log subsystem.
inline constexpr std::string_view libraryIdentifier = "dev.tern.sdk";

// The directory, under the app's application-support directory, that holds the library's files.
inline constexpr std::string_view libraryDirectoryName = "dev.tern";

}  // namespace tern
