#include "Common/http/ErrorMessageResponse.hpp"

#include <utility>

namespace tern {

std::expected<ErrorMessageResponse::Meta, DecodingError> ErrorMessageResponse::Meta::decode(
    const JsonDecoder& decoder) {
    auto error = decoder.decode<std::string>("error");
    if (!error) return std::unexpected(std::move(error.error()));
    return Meta{std::move(*error)};
}

std::expected<ErrorMessageResponse, DecodingError> ErrorMessageResponse::decode(
    const JsonDecoder& decoder) {
    auto meta = decoder.decode<Meta>("meta");
    if (!meta) return std::unexpected(std::move(meta.error()));
    return ErrorMessageResponse{std::move(*meta)};
}

}  // namespace tern
