#pragma once

#include <expected>
#include <optional>
#include <string>

#include "Common/util/DecodingError.hpp"
#include "Common/util/JsonCoding.hpp"

namespace tern {

// What a Tern rich push carries under the user-info key "TERN":
//     {"push": {"link": "...", "image": "..."}}
// Both inner members may be missing; "push" itself must be there.
struct TernPushPayload {
    struct Push {
        // The deep link to open when the push is tapped, as sent (not checked to be a URL here).
        std::optional<std::string> link;
        // The URL of the image to download and attach, as sent.
        std::optional<std::string> image;

        static std::expected<Push, DecodingError> decode(const JsonDecoder& decoder);
        void encode(JsonEncoder& encoder) const;
        // "Push(link: Optional(\"app://x\"), image: nil)".
        std::string description() const;
        bool operator==(const Push&) const = default;
    };

    Push push;

    static std::expected<TernPushPayload, DecodingError> decode(const JsonDecoder& decoder);
    void encode(JsonEncoder& encoder) const;
    // "TernPushPayload(push: Push(...))".
    std::string description() const;
    bool operator==(const TernPushPayload&) const = default;
};

}  // namespace tern
