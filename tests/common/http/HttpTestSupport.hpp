#pragma once

#include <httplib.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Common/http/HttpClient.hpp"
#include "Common/util/SimpleTimer.hpp"
#include "tests/support/CompletionRecorder.hpp"
#include "tests/support/Gate.hpp"
#include "tests/support/LoopbackServer.hpp"

namespace tern::testing {

using vontu::testing::CompletionRecorder;
using vontu::testing::Gate;
using RequestRecorder = CompletionRecorder<HttpRequestResult>;
using DownloadRecorder = CompletionRecorder<std::optional<std::filesystem::path>>;

// What a test server saw of one request.
struct ReceivedRequest {
    std::string method, path, body;
    httplib::Headers headers;

    std::optional<std::string> header(const std::string& name) const {
        const auto found = headers.find(name);  // httplib compares header names without case
        return found == headers.end() ? std::nullopt : std::optional(found->second);
    }
};

// A loopback HTTP(S) server that records every request and answers with the handler the test
// sets (by default 200 with an empty body).
template <class ServerType>
class RecordingServer {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    template <class... ServerArguments>
    explicit RecordingServer(ServerArguments&&... arguments)
        : server_([this](httplib::Server& routes) {
              const auto route = [this](const httplib::Request& request, httplib::Response& response) {
                  const Handler handler = [&] {
                      std::lock_guard guard(mutex_);
                      received_.push_back({request.method, request.path, request.body, request.headers});
                      return handler_;
                  }();
                  response.status = 200;
                  if (handler) handler(request, response);
              };
              routes.Get(".*", route).Post(".*", route).Put(".*", route).Delete(".*", route);
          }, std::forward<ServerArguments>(arguments)...) {}

    int port() const { return server_.port(); }
    std::string origin() const { return server_.url(); }
    void respond(Handler handler) { std::lock_guard guard(mutex_); handler_ = std::move(handler); }
    void respondWith(int status, std::string body = {}) {
        respond([status, body](const httplib::Request&, httplib::Response& response) {
            response.status = status;
            if (!body.empty()) response.set_content(body, "application/json");
        });
    }
    std::vector<ReceivedRequest> received() const { std::lock_guard guard(mutex_); return received_; }

private:
    mutable std::mutex mutex_;
    Handler handler_;
    std::vector<ReceivedRequest> received_;
    vontu::testing::BasicLoopbackServer<ServerType> server_;  // last: it stops before the rest goes
};

// A SimpleTimer that notes the delays it is asked for but fires after a millisecond.
class CompressedTimer final : public SimpleTimer {
public:
    explicit CompressedTimer(std::shared_ptr<SimpleTimer> timer) : timer_(std::move(timer)) {}
    void scheduleAndCancelPrevious(double seconds, std::function<void()> block) override {
        timer_->scheduleAndCancelPrevious(note(seconds), std::move(block));
    }
    bool scheduleIfNotAlready(double seconds, std::function<void()> block) override {
        return timer_->scheduleIfNotAlready(note(seconds), std::move(block));
    }
    void cancel() override { timer_->cancel(); }
    std::vector<double> requestedDelays() const { std::lock_guard guard(mutex_); return delays_; }

private:
    double note(double seconds) { std::lock_guard guard(mutex_); delays_.push_back(seconds); return 0.001; }
    std::shared_ptr<SimpleTimer> timer_;
    mutable std::mutex mutex_;
    std::vector<double> delays_;
};

}  // namespace tern::testing
