#pragma once

#include <string>

#include "Common/util/CodingPath.hpp"

namespace tern {

// Why a record could not be encoded as JSON, and where.
struct EncodingError {
    enum class Kind {
        invalidValue,  // a value with no JSON form: a non-finite number or date, a date beyond
                       // 64-bit seconds, text that is not UTF-8, a value with no JSON type
        other,         // anything else
    };

    Kind kind = Kind::other;
    // invalidValue: the offending value's description and path.
    std::string valueDescription;
    CodingPath codingPath;
    // What went wrong, in words; for `other` the localised description that the log line shows.
    std::string debugDescription;

    static EncodingError invalidValue(std::string valueDescription, CodingPath path,
                                      std::string debugDescription);
    static EncodingError other(std::string localizedDescription);
};

}  // namespace tern
