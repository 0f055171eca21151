#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Bytes.hpp"

namespace vontu::platform {

// Digests, encodings and random identifiers. The platform implementation provides them (they
// are linked, not reached through Env, since they hold no state): on Linux vontu_crypto_linux,
// on OpenSSL and libuuid (platform/linux/Crypto.cpp); on the phone CommonCrypto, Foundation's
// base64 and UUID, and SecRandomCopyBytes would. All may be called from any thread and never
// throw. Where the system's digest library cannot be loaded, md5 gives zeros, base64Encode an
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
