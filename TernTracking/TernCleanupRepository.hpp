#pragma once

#include <memory>

#include "TernTracking/CleanupRepository.hpp"

namespace tern {

class DIGraph;
class Queue;

// The start-up clean-up of the library: drops the background-queue tasks that have waited
// longer than the configured expiry (SdkConfig::backgroundQueueExpiredSeconds).
class TernCleanupRepository final : public CleanupRepository {
public:
    // With the background queue of the graph.
    explicit TernCleanupRepository(DIGraph& diGraph);
    explicit TernCleanupRepository(std::shared_ptr<Queue> queue);

    void cleanup() override;

private:
    std::shared_ptr<Queue> queue_;
};

}  // namespace tern
