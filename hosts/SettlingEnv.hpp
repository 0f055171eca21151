#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/EnvWrapper.hpp"
#include "platform/UrlSession.hpp"

namespace vontu::hosts {

// An Env that knows when the work sent through it has finished, so that a command-line host can
// wait for the library's asynchronous follow-ups of a call (a device token is registered only
// once the notification settings have answered on another thread; a queue run started by an
// addition goes on in the background) before it runs the queue or exits.
//
// Counted: blocks sent to the main thread or the background pool, and notification-settings
// queries and URL session tasks until their completion has returned (a queue run goes on from
// each request's completion, in the session's thread). Work that those start is counted before
// they end, so the count reaches zero only when everything in flight is done. One-shot timers
// are not counted: a timer that is still pending when the host exits is simply dropped.
class SettlingEnv final : public platform::EnvWrapper {
public:
    explicit SettlingEnv(platform::Env& target)
        : EnvWrapper(target), pending_(std::make_shared<Pending>()) {}

    void runOnMain(std::function<void()> block) override {
        target().runOnMain(counted(std::move(block)));
    }
    void runInBackground(std::function<void()> block) override {
        target().runInBackground(counted(std::move(block)));
    }
    void notificationAuthorizationStatus(
        std::function<void(platform::AuthorizationStatus)> completion) override {
        pending_->begin();
        target().notificationAuthorizationStatus(
            [pending = pending_, completion = std::move(completion)](
                platform::AuthorizationStatus status) {
                completion(status);
                pending->end();
            });
    }

    std::shared_ptr<platform::UrlSession> newUrlSession(
        const platform::UrlSessionConfiguration& config) override {
        auto session = target().newUrlSession(config);
        if (!session) return session;
        return std::make_shared<CountingUrlSession>(std::move(session), pending_);
    }

    // Returns once no counted work is in flight.
    void waitUntilSettled() { pending_->waitForNone(); }

private:
    // Shared with the blocks in flight, which may end after this object is gone.
    struct Pending {
        std::mutex mutex;
        std::condition_variable none;
        long count = 0;

        void begin() {
            std::lock_guard guard(mutex);
            ++count;
        }
        void end() {
            std::lock_guard guard(mutex);
            if (--count == 0) none.notify_all();
        }
        void waitForNone() {
            std::unique_lock guard(mutex);
            none.wait(guard, [this] { return count == 0; });
        }
    };

    // Counts each task of the session it wraps until the task's completion has returned.
    class CountingUrlSession final : public platform::UrlSession {
    public:
        CountingUrlSession(std::shared_ptr<platform::UrlSession> target,
                           std::shared_ptr<Pending> pending)
            : target_(std::move(target)), pending_(std::move(pending)) {}

        std::shared_ptr<platform::UrlSessionTask> dataTask(
            platform::UrlRequest request, platform::DataTaskCompletion completion) override {
            return target_->dataTask(std::move(request), counted(std::move(completion)));
        }
        std::shared_ptr<platform::UrlSessionTask> downloadTask(
            platform::UrlRequest request, platform::DownloadTaskCompletion completion) override {
            return target_->downloadTask(std::move(request), counted(std::move(completion)));
        }
        void finishTasksAndInvalidate() override { target_->finishTasksAndInvalidate(); }
        void invalidateAndCancel() override { target_->invalidateAndCancel(); }

    private:
        template <typename Completion>
        Completion counted(Completion completion) {
            pending_->begin();
            return [pending = pending_, completion = std::move(completion)](auto... outcome) {
                completion(std::move(outcome)...);
                pending->end();
            };
        }

        std::shared_ptr<platform::UrlSession> target_;
        std::shared_ptr<Pending> pending_;
    };

    std::function<void()> counted(std::function<void()> block) {
        pending_->begin();
        return [pending = pending_, block = std::move(block)] {
            block();
            pending->end();
        };
    }

    std::shared_ptr<Pending> pending_;
};

}  // namespace vontu::hosts
