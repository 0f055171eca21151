#pragma once

#include <map>
#include <memory>
#include <string>

#include "Common/util/Lock.hpp"
#include "Common/util/LockReference.hpp"

namespace tern {

// Hands out one named lock per shared resource. Everyone who asks for the same reference gets
// the same Lock, for as long as the manager lives; the dependency graph keeps one manager, so a
// named lock exists once per process.
class LockManager {
public:
    LockManager();
    LockManager(const LockManager&) = delete;
    LockManager& operator=(const LockManager&) = delete;

    std::shared_ptr<Lock> getLock(LockReference id);

private:
    std::map<std::string, std::shared_ptr<Lock>, std::less<>> locks_;
    // Guards locks_, and is held only while looking up or inserting.
    std::shared_ptr<Lock> lock_;
};

}  // namespace tern
