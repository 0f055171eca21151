#include "Common/util/DecodingError.hpp"

namespace tern {

DecodingError DecodingError::typeMismatch(std::string typeName, CodingPath path,
                                          std::string debugDescription) {
    return DecodingError{Kind::typeMismatch, std::move(path), std::move(typeName), "",
                         std::move(debugDescription)};
}

DecodingError DecodingError::valueNotFound(std::string typeName, CodingPath path,
                                           std::string debugDescription) {
    return DecodingError{Kind::valueNotFound, std::move(path), std::move(typeName), "",
                         std::move(debugDescription)};
}

DecodingError DecodingError::keyNotFound(std::string key, CodingPath path,
                                         std::string debugDescription) {
    return DecodingError{Kind::keyNotFound, std::move(path), "", std::move(key),
                         std::move(debugDescription)};
}

DecodingError DecodingError::dataCorrupted(CodingPath path, std::string debugDescription) {
    return DecodingError{Kind::dataCorrupted, std::move(path), "", "",
                         std::move(debugDescription)};
}

DecodingError DecodingError::other(std::string localizedDescription) {
    return DecodingError{Kind::other, {}, "", "", std::move(localizedDescription)};
}

}  // namespace tern
