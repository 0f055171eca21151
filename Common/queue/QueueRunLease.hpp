#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "Common/util/Logger.hpp"

namespace tern {

// The right to run a site's queue, across the processes that share it (the app and its
// extensions): a run that works through the queue while another process's run does would send
// the same tasks twice.
//
// It is the platform's inter-process lock on
// "<application support>/dev.tern/<site id>/queue/.run-lock", taken without waiting and held
// for the length of a run (the queue directory's own lock is held only for single storage
// operations). Every lease of the same directory in the process shares the one lock file.
//
// If the lock file cannot be made or locked, runs go ahead without a lease, as storage
// operations go ahead without the directory lock; that is reported with one error line per
// directory and process.
class QueueRunLease {
public:
    QueueRunLease(const std::string& siteId, std::shared_ptr<Logger> logger);

    // True when this object now holds the lease (or none can be had, see above); false, at
    // once, when another process, or another lease object of this process, holds it.
    bool take();
    // Gives back the lease this object holds; nothing when it holds none. Any thread may call
    // it.
    void release();

private:
    struct LeaseFile;

    std::shared_ptr<LeaseFile> file_;
    std::shared_ptr<Logger> logger_;
    bool holding_ = false;  // guarded by the lease file's mutex
};

}  // namespace tern
