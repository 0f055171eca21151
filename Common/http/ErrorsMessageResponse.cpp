#include "Common/http/ErrorsMessageResponse.hpp"

#include <utility>

namespace tern {

std::expected<ErrorsMessageResponse::Meta, DecodingError> ErrorsMessageResponse::Meta::decode(
    const JsonDecoder& decoder) {
    auto errors = decoder.decode<std::vector<std::string>>("errors");
    if (!errors) return std::unexpected(std::move(errors.error()));
    return Meta{std::move(*errors)};
}

std::expected<ErrorsMessageResponse, DecodingError> ErrorsMessageResponse::decode(
    const JsonDecoder& decoder) {
    auto meta = decoder.decode<Meta>("meta");
    if (!meta) return std::unexpected(std::move(meta.error()));
    return ErrorsMessageResponse{std::move(*meta)};
}

}  // namespace tern
