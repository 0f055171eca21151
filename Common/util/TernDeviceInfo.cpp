#include "Common/util/TernDeviceInfo.hpp"

#include <algorithm>
#include <cctype>
#include <mutex>
#include <vector>

#include "Common/util/SdkVersion.hpp"
#include "platform/Env.hpp"

namespace tern {

namespace {

using vontu::platform::AuthorizationStatus;
using vontu::platform::Env;

std::optional<std::string> nonEmpty(std::string text) {
    if (text.empty()) return std::nullopt;
    return text;
}

bool isLetters(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, [](unsigned char c) {
        return std::isalpha(c) != 0;
    });
}

bool isDigits(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, [](unsigned char c) {
        return std::isdigit(c) != 0;
    });
}

// The language and region codes of a language tag such as "en-GB", "zh-Hans-CN", "de_DE" or
// "en-US@calendar=gregorian": language is the first subtag (2 or 3 letters); region is a later
// subtag of 2 letters or 3 digits. Either may be missing.
struct LocaleCodes {
    std::optional<std::string> language;
    std::optional<std::string> region;
};

LocaleCodes localeCodes(std::string_view tag) {
    tag = tag.substr(0, tag.find('@'));
    std::vector<std::string_view> subtags;
    while (!tag.empty()) {
        auto end = tag.find_first_of("-_");
        subtags.push_back(tag.substr(0, end));
        tag = end == std::string_view::npos ? std::string_view() : tag.substr(end + 1);
    }
    LocaleCodes codes;
    if (subtags.empty() || !isLetters(subtags[0]) || subtags[0].size() < 2 ||
        subtags[0].size() > 3) {
        return codes;
    }
    std::string language(subtags[0]);
    std::ranges::transform(language, language.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    codes.language = language;
    for (std::size_t i = 1; i < subtags.size(); ++i) {
        std::string_view subtag = subtags[i];
        if ((subtag.size() == 2 && isLetters(subtag)) || (subtag.size() == 3 && isDigits(subtag))) {
            std::string region(subtag);
            std::ranges::transform(region, region.begin(), [](unsigned char c) {
                return static_cast<char>(std::toupper(c));
            });
            codes.region = region;
            break;
        }
    }
    return codes;
}

}  // namespace

std::string TernDeviceInfo::deviceManufacturer() const {
    std::lock_guard lock(manufacturerMutex_);
    return deviceManufacturer_;
}

void TernDeviceInfo::setDeviceManufacturer(std::string manufacturer) {
    std::lock_guard lock(manufacturerMutex_);
    deviceManufacturer_ = std::move(manufacturer);
}

// The machine does not change while the process runs, so it is read once.
std::optional<std::string> TernDeviceInfo::deviceModel() const {
    static std::once_flag once;
    static std::optional<std::string> model;
    std::call_once(once, [] { model = Env::current().machine(); });
    return model;
}

std::optional<std::string> TernDeviceInfo::osVersion() const {
    return nonEmpty(Env::current().systemVersion());
}

std::optional<std::string> TernDeviceInfo::osName() const {
    return nonEmpty(Env::current().systemName());
}

std::string TernDeviceInfo::customerAppName() const {
    return Env::current().bundleInfoValue("CFBundleName").value_or("");
}

std::string TernDeviceInfo::customerAppVersion() const {
    return Env::current().bundleInfoValue("CFBundleShortVersionString").value_or("");
}

std::string TernDeviceInfo::customerBundleId() const {
    return Env::current().bundleIdentifier().value_or("");
}

std::string TernDeviceInfo::sdkVersion() const { return std::string(SdkVersion::version); }

std::string TernDeviceInfo::deviceLocale() const {
    Env& env = Env::current();
    auto languages = env.preferredLanguages();
    if (!languages.empty()) {
        auto codes = localeCodes(languages.front());
        if (codes.language && codes.region) return *codes.language + "-" + *codes.region;
    }
    std::string identifier = env.currentLocaleIdentifier();
    std::ranges::replace(identifier, '_', '-');
    return identifier;
}

void TernDeviceInfo::isPushSubscribed(std::function<void(bool)> completion) const {
    Env::current().notificationAuthorizationStatus(
        [completion = std::move(completion)](AuthorizationStatus status) {
            completion(status == AuthorizationStatus::authorized);
        });
}

}  // namespace tern
