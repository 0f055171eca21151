#include "messaging_push/RandomString.hpp"

#include <cstdint>
#include <string_view>

#include "platform/Crypto.hpp"

namespace tern {

std::string random(std::size_t length) {
    static constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyz";
    std::string result;
    result.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
        result.push_back(
            letters[vontu::platform::randomBelow(static_cast<std::uint32_t>(letters.size()))]);
    }
    return result;
}

}  // namespace tern
