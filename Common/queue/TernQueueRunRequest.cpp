#include "Common/queue/TernQueueRunRequest.hpp"

#include <atomic>
#include <future>
#include <limits>
#include <optional>
#include <utility>

#include "Common/util/Utf8.hpp"

namespace tern {

namespace {

using TaskResult = std::expected<void, HttpRequestError>;

// The task's data as text for a log line; empty when it is not UTF-8.
std::string dataText(const vontu::platform::Bytes& data) {
    std::string text(data.begin(), data.end());
    return isValidUtf8(text) ? text : std::string();
}

}  // namespace

// One run: a loop on a background thread that hands out one task at a time and waits until the
// task's outcome has been dealt with before it looks for the next.
class TernQueueRunRequest::Run : public std::enable_shared_from_this<Run> {
public:
    Run(std::shared_ptr<QueueRunner> runner, std::shared_ptr<QueueStorage> storage,
        std::shared_ptr<QueueRequestManager> requestManager, std::shared_ptr<Logger> logger,
        std::shared_ptr<QueueQueryRunner> queryRunner)
        : runner_(std::move(runner)), storage_(std::move(storage)),
          requestManager_(std::move(requestManager)), logger_(std::move(logger)),
          queryRunner_(std::move(queryRunner)) {}

    void runTasks() {
        while (keepRunning_) {
            std::optional<QueueTaskMetadata> next;
            std::size_t tasksLeft = 0;
            {
                // Let go of the inventory before the task runs: the storage then changes its
                // list in place instead of copying it.
                const auto inventory = storage_->getInventory();
                next = queryRunner_->getNextTask(inventory.entries(), lastRanTask_,
                                                 lastFailedTask_);
                tasksLeft = inventory.size();
            }
            if (!next) {
                finish();
                return;
            }
            const auto task = storage_->get(next->taskPersistedId);
            if (!task) {
                endWithoutCompleting(*next);
                return;
            }
            logger_->debug("queue tasks left to run: " + std::to_string(tasksLeft));
            logger_->debug("queue next task to run: " + shortTaskId(task->storageId) + ",\n" +
                           task->type + ", " + dataText(task->data) + ", " +
                           task->runResults.description());
            runAndWait(*task, *next);
        }
    }

private:
    // Hands the task to the runner and blocks until its outcome has been dealt with. The
    // outcome is dealt with on the thread that reports it, while this thread waits, so the
    // two never touch the run's state at the same time.
    void runAndWait(const QueueTask& task, const QueueTaskMetadata& entry) {
        auto handled = std::make_shared<std::promise<void>>();
        auto answered = std::make_shared<std::atomic<bool>>(false);
        auto done = handled->get_future();
        runner_->runTask(task, [self = shared_from_this(), task, entry, handled,
                                answered](TaskResult result) {
            // A runner that answers twice must not handle a task twice, nor reach a run that
            // has moved on.
            if (answered->exchange(true)) return;
            self->handleResult(task, entry, result);
            handled->set_value();
        });
        // No time limit: every request ends, by the HTTP client's own time-outs at worst. Only a
        // runner that never answers (see TernQueueRunner) leaves the run waiting for good.
        done.wait();
    }

    void handleResult(const QueueTask& task, const QueueTaskMetadata& entry,
                      const TaskResult& result) {
        if (result) {
            handleSuccess(task, entry);
        } else {
            handleFailure(task, entry, result.error());
        }
    }

    void handleSuccess(const QueueTask& task, const QueueTaskMetadata& entry) {
        const auto id = shortTaskId(task.storageId);
        logger_->debug("queue task " + id + " ran successfully");
        logger_->debug("queue deleting task " + id);
        storage_->deleteTask(task.storageId);
        lastFailedTask_.reset();
        lastRanTask_ = entry;
    }

    void handleFailure(const QueueTask& task, const QueueTaskMetadata& entry,
                       const HttpRequestError& error) {
        const auto id = shortTaskId(task.storageId);
        logger_->debug("queue task " + id + " run failed " + error.description());
        switch (error.kind()) {
            case HttpRequestError::Kind::requestsPaused:
                stopBecausePaused(id);
                return;
            case HttpRequestError::Kind::badRequest400:
                deleteRejectedTask(task, error);
                break;
            case HttpRequestError::Kind::urlConstruction:
            case HttpRequestError::Kind::unsuccessfulStatusCode:
            case HttpRequestError::Kind::noOrBadNetwork:
            case HttpRequestError::Kind::noRequestMade:
            case HttpRequestError::Kind::unauthorized:
            case HttpRequestError::Kind::cancelled:
                countFailedRun(task, id);
                break;
        }
        lastFailedTask_ = entry;
        lastRanTask_ = entry;
    }

    // Nothing will get through until the pause is over, so the run stops here. The task is
    // left as it is: it did not run, so there is nothing to count.
    void stopBecausePaused(const std::string& id) {
        logger_->debug("queue task " + id + " didn't run because all HTTP requests paused.");
        logger_->info("queue is quitting early because all HTTP requests are paused.");
        finish();
    }

    // The service will answer the same request the same way every time.
    void deleteRejectedTask(const QueueTask& task, const HttpRequestError& error) {
        logger_->error("Received HTTP 400 response while trying to " + task.type +
                       ". 400 responses never succeed and therefore, the SDK is deleting this "
                       "SDK request and not retry. Error message from API: " +
                       error.apiMessage() + ", request data sent: " +
                       std::to_string(task.data.size()) + " bytes");
        storage_->deleteTask(task.storageId);
    }

    void countFailedRun(const QueueTask& task, const std::string& id) {
        const QueueTaskRunResults previous = task.runResults;
        // Saturated: a task file may hold any count, and one more than the largest has no value.
        const bool atMost = previous.totalRuns == std::numeric_limits<std::int64_t>::max();
        const QueueTaskRunResults updated{atMost ? previous.totalRuns : previous.totalRuns + 1};
        logger_->debug("queue task " + id + " updating run history\nfrom: " +
                       previous.description() + " to: " + updated.description());
        storage_->update(task.storageId, updated);
    }

    // Ends the run. Everybody waiting is told on the calling thread: the loop's, or that of the
    // outcome that stopped the run.
    void finish() {
        keepRunning_ = false;
        logger_->debug("queue out of tasks to run.");
        queryRunner_->reset();
        requestManager_->requestComplete();
    }

    // An inventory entry whose task file is gone ends the run on the spot, and on purpose
    // without finish(): the request manager stays in its running state for the rest of the
    // process, so later start() calls only add callbacks, and no callback collected so far is
    // ever called. The exclusions of the query runner stay too. The host process is
    // short-lived (an extension, a command), and a run that cannot read its own queue is not
    // tried again within it.
    void endWithoutCompleting(const QueueTaskMetadata& entry) {
        logger_->error("Tried to get queue task with storage id: " + entry.taskPersistedId +
                       ", but storage couldn't find it.");
        lastRanTask_ = entry;
        lastFailedTask_ = entry;
    }

    const std::shared_ptr<QueueRunner> runner_;
    const std::shared_ptr<QueueStorage> storage_;
    const std::shared_ptr<QueueRequestManager> requestManager_;
    const std::shared_ptr<Logger> logger_;
    const std::shared_ptr<QueueQueryRunner> queryRunner_;

    // The run's state: the loop's, and an outcome's while the loop waits for it.
    std::optional<QueueTaskMetadata> lastRanTask_;
    std::optional<QueueTaskMetadata> lastFailedTask_;
    bool keepRunning_ = true;
};

TernQueueRunRequest::TernQueueRunRequest(std::shared_ptr<QueueRunner> runner,
                                         std::shared_ptr<QueueStorage> storage,
                                         std::shared_ptr<QueueRequestManager> requestManager,
                                         std::shared_ptr<Logger> logger,
                                         std::shared_ptr<QueueQueryRunner> queryRunner,
                                         std::shared_ptr<ThreadUtil> threadUtil)
    : runner_(std::move(runner)), storage_(std::move(storage)),
      requestManager_(std::move(requestManager)), logger_(std::move(logger)),
      queryRunner_(std::move(queryRunner)), threadUtil_(std::move(threadUtil)) {}

void TernQueueRunRequest::start(Completion onComplete) {
    const bool alreadyRunning = requestManager_->startRequest(std::move(onComplete));
    if (alreadyRunning) return;  // the callback waits for the run under way
    auto run = std::make_shared<Run>(runner_, storage_, requestManager_, logger_, queryRunner_);
    threadUtil_->runBackground([run] { run->runTasks(); });
}

// The first 5 characters, counted as code points, so that a character is never cut in two.
std::string TernQueueRunRequest::shortTaskId(const std::string& storageId) {
    std::size_t end = 0;
    for (int characters = 0; characters < 5 && end < storageId.size(); ++characters) {
        ++end;
        // Continuation bytes (10xxxxxx) belong to the character before.
        while (end < storageId.size() && (static_cast<unsigned char>(storageId[end]) & 0xC0) == 0x80) {
            ++end;
        }
    }
    return storageId.substr(0, end);
}

}  // namespace tern
