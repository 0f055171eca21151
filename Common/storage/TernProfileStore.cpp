#include "Common/storage/TernProfileStore.hpp"

#include <utility>

namespace tern {

TernProfileStore::TernProfileStore(std::shared_ptr<KeyValueStorage> keyValueStorage)
    : keyValueStorage_(std::move(keyValueStorage)) {}

std::optional<std::string> TernProfileStore::identifier() {
    return keyValueStorage_->string(KeyValueStorageKey::identifiedProfileId);
}

void TernProfileStore::setIdentifier(std::optional<std::string> identifier) {
    keyValueStorage_->setString(std::move(identifier), KeyValueStorageKey::identifiedProfileId);
}

}  // namespace tern
