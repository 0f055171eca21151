#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Bytes.hpp"

namespace vontu::platform {

// Digests, encodings and random identifiers, on OpenSSL and libuuid. OpenSSL's libcrypto is
// opened on first use; on a system where it cannot be opened, md5 gives zeros, base64Encode an
// empty text and base64Decode nothing.

std::array<std::uint8_t, 16> md5(std::string_view bytes);
// Standard base64 with padding and no line breaks.
std::string base64Encode(const Bytes& bytes);
std::string base64Encode(std::string_view bytes);
// Absent when the text is not valid base64.
std::optional<Bytes> base64Decode(std::string_view text);
// A new random UUID in upper-case hyphenated form, as Foundation's UUID().uuidString.
std::string newUuidString();
// A uniformly random integer in [0, bound), from a cryptographic source.
std::uint32_t randomBelow(std::uint32_t bound);

}  // namespace vontu::platform
