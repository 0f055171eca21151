#pragma once

#include <expected>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/PlistValue.hpp"

namespace vontu::platform {

// The JSON form in which property-list values travel through the hosts:
// objects are dictionaries, arrays arrays, strings strings, true/false booleans, numbers
// without fraction or exponent integers, other numbers doubles, {"$date": SECONDS_SINCE_1970}
// a date and {"$data": BASE64} bytes. JSON null has no property-list form and is an error.
std::expected<PlistValue, std::string> plistFromJson(const nlohmann::json& json);
// JSON as a push payload carries it: the same, except that every object is a dictionary.
std::expected<PlistValue, std::string> plistFromPlainJson(const nlohmann::json& json);
nlohmann::json plistToJson(const PlistValue& value);

}  // namespace vontu::platform
