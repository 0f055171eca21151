#pragma once

#include <string>

#include "Common/util/JsonCoding.hpp"

namespace tern {

// The data of an automatic screen view when the app configured no body for it: "{}".
struct ScreenViewData {
    void encode(JsonEncoder& encoder) const { encoder.beginObject(); }
    std::string description() const { return "ScreenViewData()"; }
};

}  // namespace tern
