#include "platform/Crypto.hpp"

#include <dlfcn.h>
#include <openssl/evp.h>
#include <openssl/opensslv.h>
#include <openssl/rand.h>
#include <sys/random.h>
#include <uuid/uuid.h>

#include <cctype>
#include <cstddef>
#include <cerrno>
#include <mutex>

namespace vontu::platform {

namespace {

// OpenSSL's libcrypto is opened on first use rather than linked: mapping and relocating it
// costs every process about 1.4 MB of memory, and a read receipt never digests or encodes
// anything. The declarations come from OpenSSL's own headers, so the signatures are checked.
struct LibCrypto {
    // MD5() digests directly. EVP_Digest would first look up an MD5 implementation among the
    // library's providers, and loading them cost a new-mail push more than the rest of its own
    // work. (Declared here because OpenSSL 3 marks MD5() deprecated.)
    using Md5Function = unsigned char* (*)(const unsigned char*, std::size_t, unsigned char*);
    Md5Function md5 = nullptr;
    decltype(&::EVP_EncodeBlock) encodeBlock = nullptr;
    decltype(&::EVP_DecodeBlock) decodeBlock = nullptr;
    decltype(&::RAND_bytes) randomBytes = nullptr;

    bool loaded() const {
        return md5 && encodeBlock && decodeBlock && randomBytes;
    }
};

template <typename Function>
void bind(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(::dlsym(library, name));
}

// The library, or null when this system's libcrypto cannot be opened (the package depends on
// it, so only a broken installation gets there).
const LibCrypto* libCrypto() {
    static LibCrypto functions;
    static std::once_flag opened;
    std::call_once(opened, [] {
        void* library = ::dlopen("libcrypto.so." OPENSSL_MSTR(OPENSSL_VERSION_MAJOR),
                                 RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) return;
        bind(library, "MD5", functions.md5);
        bind(library, "EVP_EncodeBlock", functions.encodeBlock);
        bind(library, "EVP_DecodeBlock", functions.decodeBlock);
        bind(library, "RAND_bytes", functions.randomBytes);
    });
    return functions.loaded() ? &functions : nullptr;
}

}  // namespace

std::array<std::uint8_t, 16> md5(std::string_view bytes) {
    std::array<std::uint8_t, 16> digest{};
    if (const auto* crypto = libCrypto()) {
        crypto->md5(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                    digest.data());
    }
    return digest;
}

std::string base64Encode(std::string_view bytes) {
    const auto* crypto = libCrypto();
    if (crypto == nullptr) return {};
    std::string out(4 * ((bytes.size() + 2) / 3), '\0');
    int written = crypto->encodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                      reinterpret_cast<const unsigned char*>(bytes.data()),
                                      static_cast<int>(bytes.size()));
    out.resize(static_cast<std::size_t>(written));
    return out;
}

std::string base64Encode(const Bytes& bytes) {
    return base64Encode(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

std::optional<Bytes> base64Decode(std::string_view text) {
    // EVP_DecodeBlock accepts no line breaks and reports padding only through its length, so
    // validate the shape first and strip the padding's bytes afterwards.
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        bool isPad = c == '=';
        if (isPad) {
            if (i + 2 < text.size()) return std::nullopt;
            ++padding;
        } else if (padding > 0 || !(std::isalnum(c) || c == '+' || c == '/')) {
            return std::nullopt;
        }
    }
    const auto* crypto = libCrypto();
    if (crypto == nullptr) return std::nullopt;
    Bytes out(3 * text.size() / 4);
    int written = crypto->decodeBlock(out.data(),
                                      reinterpret_cast<const unsigned char*>(text.data()),
                                      static_cast<int>(text.size()));
    if (written < 0) return std::nullopt;
    out.resize(static_cast<std::size_t>(written) - padding);
    return out;
}

std::string newUuidString() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_upper(uuid, text);
    return text;
}

namespace {

// Four bytes from the kernel's random source. Deliberately not OpenSSL's generator: its first
// use loads the library's configuration and providers, which costs a process that only needs a
// few random letters (every push's start-up draws some) a couple of milliseconds and megabytes.
std::uint32_t randomWord() {
    std::uint32_t value = 0;
    auto* bytes = reinterpret_cast<unsigned char*>(&value);
    std::size_t filled = 0;
    while (filled < sizeof value) {
        const ssize_t got = ::getrandom(bytes + filled, sizeof value - filled, 0);
        if (got > 0) {
            filled += static_cast<std::size_t>(got);
        } else if (got < 0 && errno != EINTR) {
            // No kernel source (a very old kernel): OpenSSL's generator after all.
            if (const auto* crypto = libCrypto()) crypto->randomBytes(bytes, sizeof value);
            return value;
        }
    }
    return value;
}

}  // namespace

std::uint32_t randomBelow(std::uint32_t bound) {
    if (bound <= 1) return 0;
    // Rejection sampling keeps the result uniform.
    const std::uint32_t limit = UINT32_MAX - UINT32_MAX % bound;
    std::uint32_t value = 0;
    do {
        value = randomWord();
    } while (value >= limit);
    return value % bound;
}

}  // namespace vontu::platform
