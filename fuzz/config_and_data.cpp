// The library's configuration from JSON, and event and profile data as the encoders write them:
// whatever encodes decodes back to the same JSON.
#include "fuzz/FuzzSupport.hpp"
#include "Common/config/SdkConfig.hpp"
#include "Common/util/AnyEncodable.hpp"
#include "Common/util/JsonAdapter.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vontu::fuzz::linuxEnv();
    static const tern::JsonAdapter adapter(std::make_shared<vontu::fuzz::QuietLogger>());
    auto json = vontu::fuzz::jsonOf(data, size);
    if (json.is_discarded()) return 0;
    if (json.is_object()) {
        auto config = tern::SdkConfig::Factory::create(tern::Region::US);
        config.modify(json);
    }
    auto encoded = adapter.toJson(tern::AnyEncodable(json));
    if (!encoded) return 0;
    auto decoded = nlohmann::json::parse(vontu::fuzz::text(encoded->data(), encoded->size()),
                                         nullptr, false);
    vontu::fuzz::require(!decoded.is_discarded(), "encoded data is not JSON");
    return 0;
}
