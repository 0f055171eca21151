#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <functional>
#include <thread>

namespace vontu::hosts {

// The system's serial queue on which the extension's entry points are called: one thread,
// jobs in submission order. Stopping waits for the job in progress.
class ExtensionQueue {
public:
    ExtensionQueue() : thread_([this] { context_.run(); }) {}
    ~ExtensionQueue() { stop(); }
    ExtensionQueue(const ExtensionQueue&) = delete;
    ExtensionQueue& operator=(const ExtensionQueue&) = delete;

    void post(std::function<void()> job) { asio::post(context_, std::move(job)); }

    void stop() {
        keepAlive_.reset();
        context_.stop();
        if (thread_.joinable()) thread_.join();
    }

private:
    asio::io_context context_{1};
    asio::executor_work_guard<asio::io_context::executor_type> keepAlive_ =
        asio::make_work_guard(context_);
    std::thread thread_;
};

}  // namespace vontu::hosts
