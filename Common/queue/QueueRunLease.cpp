#include "Common/queue/QueueRunLease.hpp"

#include <mutex>
#include <utility>

#include "Common/queue/PerDirectoryRecord.hpp"
#include "Common/storage/StorageNames.hpp"
#include "platform/Env.hpp"

namespace tern {

namespace {

constexpr const char* leaseFileName = ".run-lock";

}  // namespace

struct QueueRunLease::LeaseFile {
    explicit LeaseFile(std::filesystem::path leasePath) : path(std::move(leasePath)) {}

    const std::filesystem::path path;
    std::mutex mutex;
    // Made anew when another Env is current (a test's), as the directory lock is.
    std::unique_ptr<vontu::platform::FileLock> lock;
    vontu::platform::Env* madeBy = nullptr;
    bool held = false;
    bool failureReported = false;
};

QueueRunLease::QueueRunLease(const std::string& siteId, std::shared_ptr<Logger> logger)
    : logger_(std::move(logger)) {
    if (auto support = vontu::platform::Env::current().applicationSupportDirectory()) {
        file_ = perDirectoryRecord<LeaseFile>(*support / libraryDirectoryName / siteId /
                                              "queue" / leaseFileName);
    }
}

bool QueueRunLease::take() {
    // Without a place for the file, nothing is shared to guard either.
    if (!file_) return true;
    std::lock_guard guard(file_->mutex);
    if (holding_) return true;
    // Held by another run of this process (of another graph of the same site).
    if (file_->held) return false;
    auto& env = vontu::platform::Env::current();
    if (!file_->lock || file_->madeBy != &env) {
        file_->lock = env.newFileLock(file_->path);
        file_->madeBy = &env;
    }
    auto taken = file_->lock->tryLock();
    if (!taken) {
        // The queue directory may not exist yet: make it, and try once more.
        if (env.createDirectories(file_->path.parent_path())) taken = file_->lock->tryLock();
    }
    if (!taken) {
        if (!file_->failureReported && logger_) {
            logger_->error("queue run lease unavailable, runs of other processes are not kept "
                           "out: " + taken.error().localizedDescription);
        }
        file_->failureReported = true;
        return true;
    }
    file_->held = holding_ = *taken;
    return *taken;
}

void QueueRunLease::release() {
    if (!file_) return;
    std::lock_guard guard(file_->mutex);
    if (!holding_) return;
    file_->lock->unlock();
    file_->held = holding_ = false;
}

}  // namespace tern
