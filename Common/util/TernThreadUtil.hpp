#pragma once

#include "Common/util/ThreadUtil.hpp"

namespace tern {

// ThreadUtil on the platform's main loop and background pool.
class TernThreadUtil final : public ThreadUtil {
public:
    void runBackground(std::function<void()> block) override;
    void runMain(std::function<void()> block) override;
};

}  // namespace tern
