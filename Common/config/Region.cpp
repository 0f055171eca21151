#include "Common/config/Region.hpp"

#include <algorithm>
#include <cctype>

namespace tern {

std::string_view rawValue(Region region) {
    switch (region) {
        case Region::US: return "US";
        case Region::EU: return "EU";
    }
    return "US";
}

std::string_view description(Region region) { return rawValue(region); }

template <>
std::optional<Region> fromRawValue<Region>(std::string_view text) {
    if (text == "US") return Region::US;
    if (text == "EU") return Region::EU;
    return std::nullopt;
}

std::string productionTrackingUrl(Region region) {
    switch (region) {
        case Region::US: return TERN_TRACKING_URL_US;
        case Region::EU: return TERN_TRACKING_URL_EU;
    }
    return TERN_TRACKING_URL_US;
}

Region getRegion(std::string_view from) {
    std::string upperCased(from);
    std::ranges::transform(upperCased, upperCased.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return fromRawValue<Region>(upperCased).value_or(Region::US);
}

}  // namespace tern
