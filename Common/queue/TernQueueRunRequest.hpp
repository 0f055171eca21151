#pragma once

#include <memory>
#include <string>

#include "Common/queue/QueueQueryRunner.hpp"
#include "Common/queue/QueueRequestManager.hpp"
#include "Common/queue/QueueRunRequest.hpp"
#include "Common/queue/QueueRunner.hpp"
#include "Common/queue/QueueStorage.hpp"
#include "Common/util/Logger.hpp"
#include "Common/util/ThreadUtil.hpp"

namespace tern {

// Runs the queue: takes the stored tasks one at a time in inventory order, hands each to the
// runner and waits for its outcome, then deletes the task (success, or a 400 that can never
// succeed), counts a failed attempt (any other error), or stops the run (all requests paused).
// A run ends when no task is left to try; the request manager then calls everybody's
// callbacks.
//
// start() returns at once; the run goes on a background thread, which it blocks while each
// task's request is under way, so tasks never overlap. The run holds its collaborators itself:
// it goes on even if this object is dropped.
class TernQueueRunRequest final : public QueueRunRequest {
public:
    TernQueueRunRequest(std::shared_ptr<QueueRunner> runner, std::shared_ptr<QueueStorage> storage,
                        std::shared_ptr<QueueRequestManager> requestManager,
                        std::shared_ptr<Logger> logger,
                        std::shared_ptr<QueueQueryRunner> queryRunner,
                        std::shared_ptr<ThreadUtil> threadUtil);

    void start(Completion onComplete) override;

    // The first five characters of a storage id (all of a shorter one), for log lines.
    static std::string shortTaskId(const std::string& storageId);

private:
    // One run: its loop and the state that the loop keeps between tasks.
    class Run;

    const std::shared_ptr<QueueRunner> runner_;
    const std::shared_ptr<QueueStorage> storage_;
    const std::shared_ptr<QueueRequestManager> requestManager_;
    const std::shared_ptr<Logger> logger_;
    const std::shared_ptr<QueueQueryRunner> queryRunner_;
    const std::shared_ptr<ThreadUtil> threadUtil_;
};

}  // namespace tern
