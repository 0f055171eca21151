// A relay answer as the extension reads it (any encoding), and its values as they go into the
// shared defaults: whatever converts to a property list, in the tagged form of the hosts or the
// plain form of payloads, comes back the same through its JSON in that form.
#include "fuzz/FuzzSupport.hpp"
#include "extension/JsonData.hpp"
#include "platform/PlistJson.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto answer = vontu::extension::jsonObjectWithData(vontu::fuzz::bytes(data, size));
    if (!answer || !answer->is_object() || answer->empty()) return 0;
    const auto& value = answer->begin().value();
    for (const auto& convert : {vontu::platform::plistFromJson, vontu::platform::plistFromPlainJson}) {
        auto plist = convert(value);
        if (!plist) continue;
        const auto back = vontu::platform::plistToJson(*plist);
        auto again = convert(back);
        vontu::fuzz::require(again.has_value() && *again == *plist,
                             "a property list does not survive its JSON form");
    }
    return 0;
}
