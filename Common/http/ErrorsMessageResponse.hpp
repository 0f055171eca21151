#pragma once

#include <expected>
#include <string>
#include <vector>

#include "Common/util/JsonCoding.hpp"

namespace tern {

// The API's body for several errors: {"meta": {"errors": ["...", ...]}}.
struct ErrorsMessageResponse {
    struct Meta {
        std::vector<std::string> errors;
        static std::expected<Meta, DecodingError> decode(const JsonDecoder& decoder);
    };

    Meta meta;
    static std::expected<ErrorsMessageResponse, DecodingError> decode(const JsonDecoder& decoder);
};

}  // namespace tern
