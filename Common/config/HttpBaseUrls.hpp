#pragma once

#include <string>

namespace tern {

// The base URL against which every API endpoint's path is resolved; built from
// SdkConfig::trackingApiUrl.
struct HttpBaseUrls {
    std::string trackingApi;

    bool operator==(const HttpBaseUrls&) const = default;
};

}  // namespace tern
