#include "Common/util/TernThreadUtil.hpp"

#include <utility>

#include "platform/Env.hpp"

namespace tern {

void TernThreadUtil::runBackground(std::function<void()> block) {
    vontu::platform::Env::current().runInBackground(std::move(block));
}

void TernThreadUtil::runMain(std::function<void()> block) {
    vontu::platform::Env::current().runOnMain(std::move(block));
}

}  // namespace tern
