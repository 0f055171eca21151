#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/DefaultsSuite.hpp"

namespace vontu::extension {

// The app group shared with the main app.
inline constexpr const char* kAppGroupIdentifier = "group.ios.vontu";

// The app group's shared defaults suite; absent when its store cannot be opened, in which case
// callers read nothing and write nothing, as with an unavailable suite on the device.
std::shared_ptr<platform::DefaultsSuite> sharedDefaults();

// The string stored under key, absent for a missing key or a value of another type.
std::optional<std::string> stringForKey(platform::DefaultsSuite* suite, const std::string& key);

}  // namespace vontu::extension
