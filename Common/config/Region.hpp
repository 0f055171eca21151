#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/util/RawValue.hpp"

namespace tern {

// The Tern data centre that a workspace lives in.
enum class Region { US, EU };

// "US", "EU".
std::string_view rawValue(Region region);
std::string_view description(Region region);
// Exact raw values only; anything else is absent.
template <>
std::optional<Region> fromRawValue<Region>(std::string_view rawValue);

// The region's production tracking API base URL: an https origin without a trailing slash.
// The values are build settings (TERN_TRACKING_URL_US, TERN_TRACKING_URL_EU).
std::string productionTrackingUrl(Region region);

// Lenient reading of a region typed by a person or passed by a wrapper: the text is upper-cased
// first, and anything that is not "US" or "EU" falls back to US, the default region.
Region getRegion(std::string_view from);

}  // namespace tern
