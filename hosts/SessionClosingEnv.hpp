#pragma once

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/EnvWrapper.hpp"

namespace vontu::hosts {

// An Env whose URL sessions the host can close all at once before the process ends.
//
// The push library keeps its HTTP clients, and with them their sessions, for the life of the
// process. Each session that has run a task has a thread of its own, holding connections and
// the TLS library's per-thread state. Ending the process with those threads still inside the
// network stack is how an exit hangs, crashes or leaks; closing the sessions first ends the
// threads while everything they use is still there.
//
// The sessions are also kept here until they are closed: a session whose last owner let go of
// it inside one of its own completions could not wait for its thread, which would then outlive
// the host's shutdown.
class SessionClosingEnv final : public platform::EnvWrapper {
public:
    explicit SessionClosingEnv(platform::Env& target) : EnvWrapper(target) {}

    std::shared_ptr<platform::UrlSession> newUrlSession(
        const platform::UrlSessionConfiguration& config) override {
        std::lock_guard lock(mutex_);
        if (closed_) return std::make_shared<ClosableSession>(nullptr);
        auto session = target().newUrlSession(config);
        auto closable = std::make_shared<ClosableSession>(session);
        sessions_.push_back({closable, std::move(session)});
        return closable;
    }

    // Cancels what every session made so far is running and waits until the sessions' threads
    // have ended; the cancelled tasks' completions run meanwhile. From then on every session,
    // old or new, fails each task at once as cancelled. Called once no other thread of the
    // host makes sessions any more.
    void closeAllSessions() {
        std::vector<Known> sessions;
        {
            std::lock_guard lock(mutex_);
            closed_ = true;
            sessions.swap(sessions_);
        }
        // All at once first, so that the sessions wind down side by side.
        for (const auto& known : sessions) {
            if (const auto closable = known.closable.lock()) closable->close();
            known.session->invalidateAndCancel();
        }
        // The last references: each session's thread is joined here.
        sessions.clear();
    }

private:
    // Stands between the library and one real session, which it can let go of for good.
    class ClosableSession final : public platform::UrlSession {
    public:
        explicit ClosableSession(std::shared_ptr<platform::UrlSession> session)
            : session_(std::move(session)) {}

        std::shared_ptr<platform::UrlSessionTask> dataTask(
            platform::UrlRequest request, platform::DataTaskCompletion completion) override {
            if (auto session = current()) {
                return session->dataTask(std::move(request), std::move(completion));
            }
            completion(std::nullopt, std::nullopt, closedError());
            return std::make_shared<NoTask>();
        }
        std::shared_ptr<platform::UrlSessionTask> downloadTask(
            platform::UrlRequest request, platform::DownloadTaskCompletion completion) override {
            if (auto session = current()) {
                return session->downloadTask(std::move(request), std::move(completion));
            }
            completion(std::nullopt, std::nullopt, closedError());
            return std::make_shared<NoTask>();
        }
        void finishTasksAndInvalidate() override {
            if (auto session = current()) session->finishTasksAndInvalidate();
        }
        void invalidateAndCancel() override {
            if (auto session = current()) session->invalidateAndCancel();
        }

        // Lets go of the session: every later task fails at once.
        void close() {
            std::lock_guard lock(mutex_);
            session_.reset();
        }

    private:
        struct NoTask final : platform::UrlSessionTask {
            void cancel() override {}
        };

        static platform::UrlError closedError() {
            return {platform::UrlError::Code::cancelled, "the process is ending"};
        }

        std::shared_ptr<platform::UrlSession> current() {
            std::lock_guard lock(mutex_);
            return session_;
        }

        std::mutex mutex_;
        std::shared_ptr<platform::UrlSession> session_;
    };

    struct Known {
        std::weak_ptr<ClosableSession> closable;
        std::shared_ptr<platform::UrlSession> session;
    };

    std::mutex mutex_;
    bool closed_ = false;
    std::vector<Known> sessions_;
};

}  // namespace vontu::hosts
