#include "Common/util/Lock.hpp"

namespace tern {

std::shared_ptr<Lock> Lock::unsafeInit() {
    // The constructor is private, so std::make_shared cannot reach it.
    return std::shared_ptr<Lock>(new Lock());
}

}  // namespace tern
