#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vontu::platform {

using Bytes = std::vector<std::uint8_t>;

inline Bytes toBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }
inline std::string toString(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

}  // namespace vontu::platform
