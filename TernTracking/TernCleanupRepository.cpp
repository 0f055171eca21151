#include "TernTracking/TernCleanupRepository.hpp"

#include <utility>

#include "Common/DIGraph.hpp"
#include "Common/queue/Queue.hpp"

namespace tern {

TernCleanupRepository::TernCleanupRepository(DIGraph& diGraph)
    : TernCleanupRepository(diGraph.queue()) {}

TernCleanupRepository::TernCleanupRepository(std::shared_ptr<Queue> queue)
    : queue_(std::move(queue)) {}

void TernCleanupRepository::cleanup() { queue_->deleteExpiredTasks(); }

}  // namespace tern
