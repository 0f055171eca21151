#include "Common/queue/TernQueueRunRequest.hpp"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <future>
#include <limits>
#include <optional>
#include <unordered_set>
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
        // Another process's run sends every task of the inventory, this process's included
        // (it looks at the inventory again before each task): a second run would send them
        // twice, and waiting for it could hold an extension for the rest of its time.
        if (!storage_->takeRunLease()) {
            logger_->info("queue is being run by another process, this run ends.");
            finish();
            return;
        }
        while (keepRunning_) {
            auto next = nextTask();
            if (!next && !keepLeaseForLateTasks()) {
                finish();
                return;
            }
            if (!next) continue;
            const auto task = storage_->get(next->taskPersistedId);
            if (!task) {
                dropUnreadableTask(*next);
                continue;
            }
            logger_->debug("queue next task to run: " + shortTaskId(task->storageId) + ",\n" +
                           task->type + ", " + dataText(task->data) + ", " +
                           task->runResults.description());
            runAndWait(*task, *next);
        }
    }

private:
    // The next task to try: the query runner's choice, passing over tasks that this run has
    // tried already and that are still queued (failed ones), which are not tried twice.
    std::optional<QueueTaskMetadata> nextTask() {
        // Let go of the inventory before the task runs: the storage then changes its list in
        // place instead of copying it.
        const auto inventory = storage_->getInventory();
        const auto& entries = inventory.entries();
        auto next = queryRunner_->getNextTask(entries, lastRanTask_, lastFailedTask_);
        if (next && triedAndKept_.contains(next->taskPersistedId)) {
            // A task tried already lies ahead (the task last run is gone, or the list names one
            // task twice): every task before the one last run has been tried or waits for its
            // group, so the next is the first of those not tried.
            std::vector<QueueTaskMetadata> untried;
            std::ranges::copy_if(entries, std::back_inserter(untried), [this](const auto& entry) {
                return !triedAndKept_.contains(entry.taskPersistedId);
            });
            next = queryRunner_->getNextTask(untried, std::nullopt, lastFailedTask_);
        }
        if (next) logger_->debug("queue tasks left to run: " + std::to_string(inventory.size()));
        return next;
    }

    // Out of tasks: gives the lease back, then looks once more, because a process that added a
    // task and found the lease taken left that task to this run. True when there is such a
    // task and this run has the lease again.
    bool keepLeaseForLateTasks() {
        storage_->releaseRunLease();
        return nextTask().has_value() && storage_->takeRunLease();
    }

    // A listed task whose file is missing or cannot be read can never run; its entry goes, so
    // that it holds up neither this run nor any later one.
    void dropUnreadableTask(const QueueTaskMetadata& entry) {
        logger_->error("Tried to get queue task with storage id: " + entry.taskPersistedId +
                       ", but storage couldn't find it.");
        logger_->info("queue removing task " + shortTaskId(entry.taskPersistedId) +
                      " whose file cannot be read.");
        leftBehind(entry, storage_->deleteTask(entry.taskPersistedId));
    }

    // Notes a task this run is done with. One that is still queued (it failed, or deleting it
    // failed) is the point the search goes on from, and is not tried again in this run; one
    // that is gone leaves the search where it was, so that the tasks behind the last one kept
    // are not looked at again from the front.
    void leftBehind(const QueueTaskMetadata& entry, bool deleted) {
        if (deleted) return;
        triedAndKept_.insert(entry.taskPersistedId);
        lastRanTask_ = entry;
    }

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
        lastFailedTask_.reset();
        leftBehind(entry, storage_->deleteTask(entry.taskPersistedId));
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
                lastFailedTask_ = entry;
                leftBehind(entry, deleteRejectedTask(task, entry, error));
                return;
            case HttpRequestError::Kind::urlConstruction:
            case HttpRequestError::Kind::unsuccessfulStatusCode:
            case HttpRequestError::Kind::noOrBadNetwork:
            case HttpRequestError::Kind::noRequestMade:
            case HttpRequestError::Kind::unauthorized:
            case HttpRequestError::Kind::cancelled:
                countFailedRun(task, entry, id);
                break;
        }
        lastFailedTask_ = entry;
        leftBehind(entry, false);
    }

    // Nothing will get through until the pause is over, so the run stops here. The task is
    // left as it is: it did not run, so there is nothing to count.
    void stopBecausePaused(const std::string& id) {
        logger_->debug("queue task " + id + " didn't run because all HTTP requests paused.");
        logger_->info("queue is quitting early because all HTTP requests are paused.");
        finish();
    }

    // The service will answer the same request the same way every time. Tasks are deleted and
    // updated under the id of their entry, the name their file was read under, whatever the
    // storage_id inside the file says.
    bool deleteRejectedTask(const QueueTask& task, const QueueTaskMetadata& entry,
                            const HttpRequestError& error) {
        logger_->error("Received HTTP 400 response while trying to " + task.type +
                       ". 400 responses never succeed and therefore, the SDK is deleting this "
                       "SDK request and not retry. Error message from API: " +
                       error.apiMessage() + ", request data sent: " +
                       std::to_string(task.data.size()) + " bytes");
        return storage_->deleteTask(entry.taskPersistedId);
    }

    void countFailedRun(const QueueTask& task, const QueueTaskMetadata& entry,
                        const std::string& id) {
        const QueueTaskRunResults previous = task.runResults;
        // Saturated: a task file may hold any count, and one more than the largest has no value.
        const bool atMost = previous.totalRuns == std::numeric_limits<std::int64_t>::max();
        const QueueTaskRunResults updated{atMost ? previous.totalRuns : previous.totalRuns + 1};
        logger_->debug("queue task " + id + " updating run history\nfrom: " +
                       previous.description() + " to: " + updated.description());
        storage_->update(entry.taskPersistedId, updated);
    }

    // Ends the run and gives the queue back to other processes. Everybody waiting is told on
    // the calling thread: the loop's, or that of the outcome that stopped the run.
    void finish() {
        keepRunning_ = false;
        storage_->releaseRunLease();
        logger_->debug("queue out of tasks to run.");
        queryRunner_->reset();
        requestManager_->requestComplete();
    }

    const std::shared_ptr<QueueRunner> runner_;
    const std::shared_ptr<QueueStorage> storage_;
    const std::shared_ptr<QueueRequestManager> requestManager_;
    const std::shared_ptr<Logger> logger_;
    const std::shared_ptr<QueueQueryRunner> queryRunner_;

    // The run's state: the loop's, and an outcome's while the loop waits for it.
    std::optional<QueueTaskMetadata> lastRanTask_;
    std::optional<QueueTaskMetadata> lastFailedTask_;
    std::unordered_set<std::string> triedAndKept_;
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
