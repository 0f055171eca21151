#pragma once

#include <expected>
#include <string>

#include "Common/util/JsonCoding.hpp"

namespace tern {

// The API's body for one error: {"meta": {"error": "..."}}.
struct ErrorMessageResponse {
    struct Meta {
        std::string error;
        static std::expected<Meta, DecodingError> decode(const JsonDecoder& decoder);
    };

    Meta meta;
    static std::expected<ErrorMessageResponse, DecodingError> decode(const JsonDecoder& decoder);
};

}  // namespace tern
