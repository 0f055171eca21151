#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Common/storage/KeyValueStorageKey.hpp"
#include "platform/AutoMockable.hpp"
#include "platform/Date.hpp"

namespace tern {

// Small typed values kept on the device, one store per site id plus one store shared by all
// sites. Getters give absent on any failure; setters given absent remove the key. A stored
// integer 0 or double 0.0 reads back as absent: zero and "no value" are the same thing here.
class KeyValueStorage : public vontu::AutoMockable {
public:
    // From now on this object works on the store shared by all sites, for good.
    virtual void switchToGlobalDataStore() = 0;

    virtual std::optional<std::int64_t> integer(KeyValueStorageKey key) = 0;
    virtual void setInt(std::optional<std::int64_t> value, KeyValueStorageKey key) = 0;
    // Named doubleValue because C++ reserves the word double.
    virtual std::optional<double> doubleValue(KeyValueStorageKey key) = 0;
    virtual void setDouble(std::optional<double> value, KeyValueStorageKey key) = 0;
    virtual std::optional<std::string> string(KeyValueStorageKey key) = 0;
    virtual void setString(std::optional<std::string> value, KeyValueStorageKey key) = 0;
    // Only dates after 1 January 1970 read back; earlier ones read as absent.
    virtual std::optional<vontu::platform::Date> date(KeyValueStorageKey key) = 0;
    virtual void setDate(std::optional<vontu::platform::Date> value, KeyValueStorageKey key) = 0;

    // Removes every key of this object's store, including keys this library did not write.
    virtual void deleteAll() = 0;
};

}  // namespace tern
