#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "Common/util/JsonCoding.hpp"

namespace tern {

// A string-keyed dictionary of values of any type (custom attributes of a profile or an event)
// that can be encoded as a JSON object.
//
// The dictionary is an nlohmann::json object. Two kinds of value in it have no JSON form of
// their own and stand for the values that cannot be encoded: null (the app's "no object",
// NSNull on Apple platforms) and a binary value (nlohmann::json::binary(...), raw bytes or any
// other opaque object that the app did not turn into JSON). When encoding, value by value:
//   1. a value that is encodable (string, number, boolean, or an array whose elements are all
//      encodable, where an object inside an array is encodable when all its values are) is
//      written as it is;
//   2. otherwise an object is encoded, recursively, as a StringAnyEncodable of its own, so its
//      non-encodable members are dropped and the rest kept;
//   3. any other value (null, binary, an array holding one of those) is dropped silently,
//      together with its key.
// The rest still encodes. A non-finite number is encodable by type but has no JSON text, so it
// makes the whole encoding fail, as it would in any record.
struct StringAnyEncodable {
    nlohmann::json data;

    StringAnyEncodable() : data(nlohmann::json::object()) {}
    // data that is not an object encodes as an empty object.
    explicit StringAnyEncodable(nlohmann::json dictionary) : data(std::move(dictionary)) {}

    void encode(JsonEncoder& encoder) const;
    // "StringAnyEncodable(data: {...})".
    std::string description() const;
};

}  // namespace tern
