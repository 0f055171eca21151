#include "Common/storage/TernGlobalDataStore.hpp"

#include <utility>

namespace tern {

TernGlobalDataStore::TernGlobalDataStore(std::shared_ptr<KeyValueStorage> keyValueStorage)
    : keyValueStorage_(std::move(keyValueStorage)) {
    keyValueStorage_->switchToGlobalDataStore();
}

std::optional<std::string> TernGlobalDataStore::pushDeviceToken() {
    return keyValueStorage_->string(KeyValueStorageKey::pushDeviceToken);
}

void TernGlobalDataStore::setPushDeviceToken(std::optional<std::string> token) {
    keyValueStorage_->setString(std::move(token), KeyValueStorageKey::pushDeviceToken);
}

std::optional<vontu::platform::Date> TernGlobalDataStore::httpRequestsPauseEnds() {
    return keyValueStorage_->date(KeyValueStorageKey::httpRequestsPauseEnds);
}

void TernGlobalDataStore::setHttpRequestsPauseEnds(std::optional<vontu::platform::Date> date) {
    keyValueStorage_->setDate(date, KeyValueStorageKey::httpRequestsPauseEnds);
}

void TernGlobalDataStore::deleteAll() { keyValueStorage_->deleteAll(); }

}  // namespace tern
