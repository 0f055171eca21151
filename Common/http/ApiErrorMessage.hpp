#pragma once

#include <optional>
#include <string>

#include "Common/util/JsonAdapter.hpp"
#include "platform/Bytes.hpp"

namespace tern {

// The message an error response of the API carries, for HttpRequestError: the "meta"/"error"
// text, else the "meta"/"errors" joined with ",", else the body as it is. Without a body (or
// with one that is empty or not UTF-8 text) it is "(server did not give a response)". Decoding
// failures are expected here and are not logged.
std::string apiErrorMessage(const std::optional<vontu::platform::Bytes>& body,
                            const JsonAdapter& jsonAdapter);

}  // namespace tern
