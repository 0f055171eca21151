#pragma once

#include <string>

#include "Common/util/CodingPath.hpp"

namespace tern {

// Why a JSON value could not be decoded into a record, and where.
struct DecodingError {
    enum class Kind {
        typeMismatch,   // a value of another JSON type than the expected one
        valueNotFound,  // null where a value is required
        keyNotFound,    // a required member is missing
        dataCorrupted,  // not JSON at all, or a value of the right type that does not fit
        other,          // anything else a record's own decoding reports
    };

    Kind kind = Kind::other;
    // For typeMismatch and keyNotFound/valueNotFound/dataCorrupted: the value's path (for
    // keyNotFound the path of the object that lacks the member).
    CodingPath codingPath;
    // typeMismatch, valueNotFound: the qualified name of the expected type.
    std::string typeName;
    // keyNotFound: the missing member's name.
    std::string key;
    // What went wrong, in words; for `other` this is the localised description that the log
    // line shows.
    std::string debugDescription;

    static DecodingError typeMismatch(std::string typeName, CodingPath path,
                                      std::string debugDescription);
    static DecodingError valueNotFound(std::string typeName, CodingPath path,
                                       std::string debugDescription);
    static DecodingError keyNotFound(std::string key, CodingPath path,
                                     std::string debugDescription);
    static DecodingError dataCorrupted(CodingPath path, std::string debugDescription);
    static DecodingError other(std::string localizedDescription);
};

}  // namespace tern
