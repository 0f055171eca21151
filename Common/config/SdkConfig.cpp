#include "Common/config/SdkConfig.hpp"

#include <array>
#include <limits>

namespace tern {

namespace {

using nlohmann::json;

constexpr std::array allKeys = {
    SdkConfig::Keys::siteId,
    SdkConfig::Keys::apiKey,
    SdkConfig::Keys::region,
    SdkConfig::Keys::trackingApiUrl,
    SdkConfig::Keys::autoTrackDeviceAttributes,
    SdkConfig::Keys::autoTrackScreenViews,
    SdkConfig::Keys::logLevel,
    SdkConfig::Keys::autoTrackPushEvents,
    SdkConfig::Keys::backgroundQueueMinNumberOfTasks,
    SdkConfig::Keys::backgroundQueueSecondsDelay,
    SdkConfig::Keys::backgroundQueueExpiredSeconds,
    SdkConfig::Keys::source,
    SdkConfig::Keys::version,
};

// The parameter under key, when params has it.
const json* parameter(const json& params, SdkConfig::Keys key) {
    auto found = params.find(std::string(rawValue(key)));
    return found == params.end() ? nullptr : &*found;
}

// The typed readers below decide which JSON values count as which field type. JSON keeps
// booleans apart from numbers, and nlohmann::json keeps integers (written without fraction or
// exponent) apart from floating-point numbers:
//   - a boolean is only ever a boolean, never 0 or 1;
//   - an integer field takes only integers that fit a signed 64-bit value: 5, not 5.0;
//   - a double field takes any number, integers included: "backgroundQueueSecondsDelay": 5
//     means 5.0 seconds, as an integer number bridged to Double would on Apple platforms.
std::optional<std::string> stringParameter(const json& params, SdkConfig::Keys key) {
    const json* value = parameter(params, key);
    if (value == nullptr || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::optional<bool> booleanParameter(const json& params, SdkConfig::Keys key) {
    const json* value = parameter(params, key);
    if (value == nullptr || !value->is_boolean()) return std::nullopt;
    return value->get<bool>();
}

std::optional<std::int64_t> integerParameter(const json& params, SdkConfig::Keys key) {
    const json* value = parameter(params, key);
    if (value == nullptr) return std::nullopt;
    if (value->is_number_integer() && !value->is_number_unsigned()) {
        return value->get<std::int64_t>();
    }
    if (value->is_number_unsigned()) {
        auto unsignedValue = value->get<std::uint64_t>();
        if (std::in_range<std::int64_t>(unsignedValue)) {
            return static_cast<std::int64_t>(unsignedValue);
        }
    }
    return std::nullopt;
}

std::optional<double> doubleParameter(const json& params, SdkConfig::Keys key) {
    const json* value = parameter(params, key);
    if (value == nullptr || !value->is_number()) return std::nullopt;
    return value->get<double>();
}

template <class T>
void assignIfPresent(T& field, const std::optional<T>& value) {
    if (value) field = *value;
}

}  // namespace

SdkConfig SdkConfig::Factory::create(Region region) {
    SdkConfig config;
    config.region = region;
    config.trackingApiUrl = productionTrackingUrl(region);
    return config;
}

void SdkConfig::modify(const nlohmann::json& params) {
    if (!params.is_object()) return;

    if (auto level = stringParameter(params, Keys::logLevel)) {
        assignIfPresent(logLevel, fromRawValue<TernLogLevel>(*level));
    }
    assignIfPresent(autoTrackDeviceAttributes,
                    booleanParameter(params, Keys::autoTrackDeviceAttributes));
    assignIfPresent(autoTrackPushEvents, booleanParameter(params, Keys::autoTrackPushEvents));
    assignIfPresent(autoTrackScreenViews, booleanParameter(params, Keys::autoTrackScreenViews));
    assignIfPresent(backgroundQueueMinNumberOfTasks,
                    integerParameter(params, Keys::backgroundQueueMinNumberOfTasks));
    assignIfPresent(backgroundQueueSecondsDelay,
                    doubleParameter(params, Keys::backgroundQueueSecondsDelay));
    assignIfPresent(backgroundQueueExpiredSeconds,
                    doubleParameter(params, Keys::backgroundQueueExpiredSeconds));
    // An empty URL would make every request fail; keep the current one instead.
    if (auto url = stringParameter(params, Keys::trackingApiUrl); url && !url->empty()) {
        trackingApiUrl = *url;
    }
    // The wrapper changes only as a whole: a known source together with a version.
    auto source = stringParameter(params, Keys::source);
    auto version = stringParameter(params, Keys::version);
    if (source && version) {
        if (auto knownSource = fromRawValue<SdkWrapperConfig::Source>(*source)) {
            _sdkWrapperConfig = SdkWrapperConfig{*knownSource, *version};
        }
    }
}

std::string_view rawValue(SdkConfig::Keys key) {
    switch (key) {
        case SdkConfig::Keys::siteId: return "siteId";
        case SdkConfig::Keys::apiKey: return "apiKey";
        case SdkConfig::Keys::region: return "region";
        case SdkConfig::Keys::trackingApiUrl: return "trackingApiUrl";
        case SdkConfig::Keys::autoTrackDeviceAttributes: return "autoTrackDeviceAttributes";
        case SdkConfig::Keys::autoTrackScreenViews: return "autoTrackScreenViews";
        case SdkConfig::Keys::logLevel: return "logLevel";
        case SdkConfig::Keys::autoTrackPushEvents: return "autoTrackPushEvents";
        case SdkConfig::Keys::backgroundQueueMinNumberOfTasks:
            return "backgroundQueueMinNumberOfTasks";
        case SdkConfig::Keys::backgroundQueueSecondsDelay: return "backgroundQueueSecondsDelay";
        case SdkConfig::Keys::backgroundQueueExpiredSeconds:
            return "backgroundQueueExpiredSeconds";
        case SdkConfig::Keys::source: return "source";
        case SdkConfig::Keys::version: return "version";
    }
    return "";
}

template <>
std::optional<SdkConfig::Keys> fromRawValue<SdkConfig::Keys>(std::string_view text) {
    for (auto key : allKeys) {
        if (rawValue(key) == text) return key;
    }
    return std::nullopt;
}

}  // namespace tern
