#include "TernTracking/Device.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

void Device::encode(JsonEncoder& encoder) const {
    encoder.encode("id", token);
    encoder.encode("platform", platform);
    encoder.encode("last_used", lastUsed);
    encoder.encodeIfPresent("attributes", attributes);
}

std::string Device::description() const {
    std::optional<std::string> attributesText;
    if (attributes) attributesText = attributes->description();
    return "Device(token: " + quotedDescription(token) +
           ", platform: " + quotedDescription(platform) + ", lastUsed: " + describeDate(lastUsed) +
           ", attributes: " + optionalDescription(attributesText) + ")";
}

}  // namespace tern
