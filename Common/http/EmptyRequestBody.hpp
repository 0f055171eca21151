#pragma once

#include "Common/util/JsonCoding.hpp"

namespace tern {

// The body of a request whose endpoint wants a JSON body but has nothing to say: "{}".
struct EmptyRequestBody {
    void encode(JsonEncoder& encoder) const { encoder.beginObject(); }
    std::string description() const { return "EmptyRequestBody()"; }
};

}  // namespace tern
