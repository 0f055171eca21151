#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/UrlSession.hpp"

namespace vontu::testing {

// An HTTP(S) server on 127.0.0.1 with an ephemeral port, serving on a thread of its own until
// it goes away.
template <class ServerType>
class BasicLoopbackServer {
public:
    template <class... ServerArguments>
    explicit BasicLoopbackServer(const std::function<void(httplib::Server&)>& routes, ServerArguments&&... arguments)
        : server_(std::forward<ServerArguments>(arguments)...) {
        routes(server_);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~BasicLoopbackServer() {
        server_.stop();
        thread_.join();
    }
    BasicLoopbackServer(const BasicLoopbackServer&) = delete;
    BasicLoopbackServer& operator=(const BasicLoopbackServer&) = delete;

    int port() const { return port_; }
    std::string url(std::string_view path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
    }

private:
    ServerType server_;
    int port_ = -1;
    std::thread thread_;
};

using LoopbackServer = BasicLoopbackServer<httplib::Server>;

// Holds server handlers back until the test lets them go, and tells the test when they have
// been reached.
class Gate {
public:
    void arrive() {
        std::lock_guard lock(mutex_);
        ++arrivals_;
        changed_.notify_all();
    }
    bool waitForArrivals(int count, std::chrono::seconds limit = std::chrono::seconds(30)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return arrivals_ >= count; });
    }
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    // True once opened; false when the limit passed first.
    bool waitOpen(std::chrono::milliseconds limit = std::chrono::seconds(60)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int arrivals_ = 0;
    bool open_ = false;
};

// What a task's completion received, and on which thread.
struct Outcome {
    std::optional<platform::Bytes> data;
    std::optional<std::filesystem::path> location;
    std::optional<platform::HttpUrlResponse> response;
    std::optional<platform::UrlError> error;
    std::thread::id thread;
    int calls = 0;  // how often the completion ran by the time the first outcome was taken
};

// Collects a task's outcome; the completion counts its calls so tests can check "exactly once".
class OutcomeRecorder {
public:
    platform::DataTaskCompletion dataCompletion() {
        return [self = state_](auto data, auto response, auto error) {
            self->record(Outcome{std::move(data), std::nullopt, std::move(response), std::move(error), {}, 0});
        };
    }
    // `whileFileExists` runs inside the completion, when the downloaded file is still there.
    platform::DownloadTaskCompletion downloadCompletion(
        std::function<void(const std::optional<std::filesystem::path>&)> whileFileExists = {}) {
        return [self = state_, whileFileExists](auto location, auto response, auto error) {
            if (whileFileExists) whileFileExists(location);
            self->record(Outcome{std::nullopt, std::move(location), std::move(response), std::move(error), {}, 0});
        };
    }
    // Waits for the completion (generously); absent when it never came.
    std::optional<Outcome> await(std::chrono::seconds limit = std::chrono::seconds(30)) {
        if (state_->future.wait_for(limit) != std::future_status::ready) return std::nullopt;
        return state_->future.get();
    }
    int calls() const {
        std::lock_guard lock(state_->mutex);
        return state_->calls;
    }

private:
    struct State {
        void record(Outcome outcome) {
            std::lock_guard lock(mutex);
            if (calls++ > 0) return;
            outcome.thread = std::this_thread::get_id();
            outcome.calls = calls;
            promise.set_value(std::move(outcome));
        }
        mutable std::mutex mutex;
        int calls = 0;
        std::promise<Outcome> promise;
        std::future<Outcome> future = promise.get_future();
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace vontu::testing
