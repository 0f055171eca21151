#include "extension/SharedDefaults.hpp"

#include "platform/Env.hpp"

namespace vontu::extension {

std::shared_ptr<platform::DefaultsSuite> sharedDefaults() {
    return platform::Env::current().defaultsSuite(kAppGroupIdentifier);
}

std::optional<std::string> stringForKey(platform::DefaultsSuite* suite, const std::string& key) {
    if (suite == nullptr) return std::nullopt;
    auto value = suite->objectForKey(key);
    if (!value) return std::nullopt;
    if (const auto* text = value->as<std::string>()) return *text;
    return std::nullopt;
}

}  // namespace vontu::extension
