#pragma once

#include <nlohmann/json.hpp>

#include <optional>

#include "platform/Bytes.hpp"

namespace vontu::extension {

// The JSON value in data, read as the phone's JSON parser reads a server's answer: top-level
// values of any kind are allowed, and the text may be UTF-8, UTF-16 or UTF-32 of either byte
// order. The encoding comes from a byte order mark, else from where zero bytes fall among the
// first four (JSON text starts with ASCII, so UTF-16 and UTF-32 show zeros there), else it is
// UTF-8. Absent when the bytes are not JSON in that encoding. Takes the bytes over so that a
// large answer is held once, not twice, while it is read.
std::optional<nlohmann::json> jsonObjectWithData(platform::Bytes data);

}  // namespace vontu::extension
