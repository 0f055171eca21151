#include "Common/util/LockManager.hpp"

namespace tern {

LockManager::LockManager() : lock_(Lock::unsafeInit()) {}

std::shared_ptr<Lock> LockManager::getLock(LockReference id) {
    std::lock_guard guard(*lock_);
    const auto key = rawValue(id);
    if (auto found = locks_.find(key); found != locks_.end()) return found->second;
    auto created = std::shared_ptr<Lock>(new Lock());
    locks_.emplace(std::string(key), created);
    return created;
}

}  // namespace tern
