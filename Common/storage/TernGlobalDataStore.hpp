#pragma once

#include <memory>

#include "Common/storage/GlobalDataStore.hpp"
#include "Common/storage/KeyValueStorage.hpp"

namespace tern {

// GlobalDataStore over the key-value store shared by all sites.
class TernGlobalDataStore final : public GlobalDataStore {
public:
    // Switches keyValueStorage to the shared store, whatever site it was made for.
    explicit TernGlobalDataStore(std::shared_ptr<KeyValueStorage> keyValueStorage);

    std::optional<std::string> pushDeviceToken() override;
    void setPushDeviceToken(std::optional<std::string> token) override;
    std::optional<vontu::platform::Date> httpRequestsPauseEnds() override;
    void setHttpRequestsPauseEnds(std::optional<vontu::platform::Date> date) override;
    void deleteAll() override;

private:
    std::shared_ptr<KeyValueStorage> keyValueStorage_;
};

}  // namespace tern
