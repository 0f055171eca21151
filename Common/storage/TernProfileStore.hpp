#pragma once

#include <memory>

#include "Common/storage/KeyValueStorage.hpp"
#include "Common/storage/ProfileStore.hpp"

namespace tern {

// ProfileStore over the site's own key-value store.
class TernProfileStore final : public ProfileStore {
public:
    explicit TernProfileStore(std::shared_ptr<KeyValueStorage> keyValueStorage);

    std::optional<std::string> identifier() override;
    void setIdentifier(std::optional<std::string> identifier) override;

private:
    std::shared_ptr<KeyValueStorage> keyValueStorage_;
};

}  // namespace tern
