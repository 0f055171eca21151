#include "Common/util/EncodingError.hpp"

namespace tern {

EncodingError EncodingError::invalidValue(std::string valueDescription, CodingPath path,
                                          std::string debugDescription) {
    return EncodingError{Kind::invalidValue, std::move(valueDescription), std::move(path),
                         std::move(debugDescription)};
}

EncodingError EncodingError::other(std::string localizedDescription) {
    return EncodingError{Kind::other, "", {}, std::move(localizedDescription)};
}

}  // namespace tern
