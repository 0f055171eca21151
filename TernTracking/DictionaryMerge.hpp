#pragma once

#include <nlohmann/json.hpp>

namespace tern {

// dictionary with the members of other added; on a key that both hold, other's value wins (the
// app's custom attributes override the library's defaults). Shallow: nested objects are
// replaced, not merged. A non-object on either side counts as empty.
nlohmann::json mergeWith(const nlohmann::json& dictionary, const nlohmann::json& other);

}  // namespace tern
