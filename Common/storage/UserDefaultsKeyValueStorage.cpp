#include "Common/storage/UserDefaultsKeyValueStorage.hpp"

#include <cmath>
#include <utility>

#include "Common/storage/StorageNames.hpp"
#include "Common/util/ConsoleLogger.hpp"
#include "platform/Env.hpp"

namespace tern {

using vontu::platform::Date;
using vontu::platform::DefaultsSuite;
using vontu::platform::Env;
using vontu::platform::PlistValue;

static_assert(libraryIdentifier == ConsoleLogger::logSubsystem,
              "suite names and log lines name the library alike");

namespace {

// Numbers read as the platform's defaults read them: a stored double serves an integer read
// (truncated) and a stored integer serves a double read, since another writer of the suite (the
// app, a command-line tool) may have stored the other kind. Anything else is not a number.
std::optional<std::int64_t> integerFrom(const PlistValue& stored) {
    if (const auto* number = stored.as<std::int64_t>()) return *number;
    if (const auto* number = stored.as<double>()) {
        constexpr double limit = 9223372036854775808.0;  // 2^63
        if (std::isfinite(*number) && *number > -limit && *number < limit) {
            return static_cast<std::int64_t>(*number);
        }
    }
    return std::nullopt;
}

std::optional<double> doubleFrom(const PlistValue& stored) {
    if (const auto* number = stored.as<double>()) return *number;
    if (const auto* number = stored.as<std::int64_t>()) return static_cast<double>(*number);
    return std::nullopt;
}

}  // namespace

UserDefaultsKeyValueStorage::UserDefaultsKeyValueStorage(
    std::optional<std::string> siteId, std::shared_ptr<DeviceMetricsGrabber> deviceMetricsGrabber)
    : siteId_(std::move(siteId)), deviceMetricsGrabber_(std::move(deviceMetricsGrabber)) {}

void UserDefaultsKeyValueStorage::switchToGlobalDataStore() { siteId_.reset(); }

std::string UserDefaultsKeyValueStorage::suiteName() const {
    std::string name(libraryIdentifier);
    if (deviceMetricsGrabber_) {
        if (auto bundleId = deviceMetricsGrabber_->appBundleId()) name += "." + *bundleId;
    }
    name += siteId_ ? "." + *siteId_ : std::string(".shared");
    return name;
}

std::shared_ptr<DefaultsSuite> UserDefaultsKeyValueStorage::openSuite() const {
    return Env::current().defaultsSuite(suiteName());
}

std::optional<PlistValue> UserDefaultsKeyValueStorage::object(KeyValueStorageKey key) const {
    auto suite = openSuite();
    if (!suite) return std::nullopt;
    return suite->objectForKey(std::string(rawValue(key)));
}

void UserDefaultsKeyValueStorage::setObject(std::optional<PlistValue> value,
                                            KeyValueStorageKey key) {
    auto suite = openSuite();
    if (!suite) return;
    const std::string keyText(rawValue(key));
    if (value) {
        suite->setObject(*value, keyText);
    } else {
        suite->removeObject(keyText);
    }
}

std::optional<std::int64_t> UserDefaultsKeyValueStorage::integer(KeyValueStorageKey key) {
    auto stored = object(key);
    if (!stored) return std::nullopt;
    auto number = integerFrom(*stored);
    if (!number || *number == 0) return std::nullopt;
    return number;
}

void UserDefaultsKeyValueStorage::setInt(std::optional<std::int64_t> value,
                                         KeyValueStorageKey key) {
    setObject(value ? std::optional<PlistValue>(*value) : std::nullopt, key);
}

std::optional<double> UserDefaultsKeyValueStorage::doubleValue(KeyValueStorageKey key) {
    auto stored = object(key);
    if (!stored) return std::nullopt;
    auto number = doubleFrom(*stored);
    if (!number || *number == 0.0) return std::nullopt;
    return number;
}

void UserDefaultsKeyValueStorage::setDouble(std::optional<double> value, KeyValueStorageKey key) {
    setObject(value ? std::optional<PlistValue>(*value) : std::nullopt, key);
}

std::optional<std::string> UserDefaultsKeyValueStorage::string(KeyValueStorageKey key) {
    auto stored = object(key);
    if (!stored) return std::nullopt;
    const auto* text = stored->as<std::string>();
    if (text == nullptr) return std::nullopt;
    return *text;
}

void UserDefaultsKeyValueStorage::setString(std::optional<std::string> value,
                                            KeyValueStorageKey key) {
    setObject(value ? std::optional<PlistValue>(std::move(*value)) : std::nullopt, key);
}

// A date is kept as a plain double of seconds since 1970, so that it reads the same on every
// platform; a value that is not after 1970 is taken for "no date".
std::optional<Date> UserDefaultsKeyValueStorage::date(KeyValueStorageKey key) {
    auto stored = object(key);
    if (!stored) return std::nullopt;
    auto seconds = doubleFrom(*stored);
    if (!seconds || !(*seconds > 0)) return std::nullopt;
    return Date{*seconds};
}

void UserDefaultsKeyValueStorage::setDate(std::optional<Date> value, KeyValueStorageKey key) {
    setObject(value ? std::optional<PlistValue>(value->secondsSince1970) : std::nullopt, key);
}

void UserDefaultsKeyValueStorage::deleteAll() {
    auto suite = openSuite();
    if (!suite) return;
    for (const auto& [key, value] : suite->dictionaryRepresentation()) {
        suite->removeObject(key);
    }
}

}  // namespace tern
