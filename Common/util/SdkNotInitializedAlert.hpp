#pragma once

#include <string>

namespace tern {

// Warns that the library is used before initialisation: "⚠️ " + message at the error level,
// unfiltered and without a site tag, since no configuration exists yet to filter or tag by.
void sdkNotInitializedAlert(const std::string& message);

}  // namespace tern
