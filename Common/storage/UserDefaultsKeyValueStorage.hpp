#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Common/storage/KeyValueStorage.hpp"
#include "Common/util/DeviceMetricsGrabber.hpp"
#include "platform/DefaultsSuite.hpp"

namespace tern {

// KeyValueStorage over the platform's defaults suites. The suite is named
// "dev.tern.sdk[.<app bundle id>].<site id>", or "...shared" for the store of all sites, so that
// an app and its extensions, which have different bundle ids, keep separate stores.
//
// The suite is looked up again for every operation; if it cannot be opened, getters give absent
// and setters do nothing. The class holds no lock: the suite itself is safe from any thread.
class UserDefaultsKeyValueStorage final : public KeyValueStorage {
public:
    // siteId absent means the store shared by all sites.
    UserDefaultsKeyValueStorage(std::optional<std::string> siteId,
                                std::shared_ptr<DeviceMetricsGrabber> deviceMetricsGrabber);

    void switchToGlobalDataStore() override;

    std::optional<std::int64_t> integer(KeyValueStorageKey key) override;
    void setInt(std::optional<std::int64_t> value, KeyValueStorageKey key) override;
    std::optional<double> doubleValue(KeyValueStorageKey key) override;
    void setDouble(std::optional<double> value, KeyValueStorageKey key) override;
    std::optional<std::string> string(KeyValueStorageKey key) override;
    void setString(std::optional<std::string> value, KeyValueStorageKey key) override;
    std::optional<vontu::platform::Date> date(KeyValueStorageKey key) override;
    void setDate(std::optional<vontu::platform::Date> value, KeyValueStorageKey key) override;

    void deleteAll() override;

    // The name of the suite that the next operation works on.
    std::string suiteName() const;

private:
    std::shared_ptr<vontu::platform::DefaultsSuite> openSuite() const;
    std::optional<vontu::platform::PlistValue> object(KeyValueStorageKey key) const;
    // Stores value under key, or removes the key when value is absent.
    void setObject(std::optional<vontu::platform::PlistValue> value, KeyValueStorageKey key);

    std::optional<std::string> siteId_;
    std::shared_ptr<DeviceMetricsGrabber> deviceMetricsGrabber_;
};

}  // namespace tern
