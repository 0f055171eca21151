#pragma once

#include <httplib.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Common/http/HttpClient.hpp"
#include "Common/util/SimpleTimer.hpp"
#include "tests/support/Process.hpp"

namespace tern::testing {

using namespace std::chrono_literals;

inline constexpr auto generousDeadline = 30s;

// What a test server saw of one request.
struct ReceivedRequest {
    std::string method;
    std::string path;
    std::string body;
    httplib::Headers headers;

    std::optional<std::string> header(const std::string& name) const {
        const auto found = headers.find(name);  // httplib compares header names without case
        if (found == headers.end()) return std::nullopt;
        return found->second;
    }
};

// An HTTP(S) server on 127.0.0.1 with an ephemeral port that records every request and answers
// with the handler the test sets (by default 200 with an empty body).
template <class ServerType>
class RecordingServer {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    template <class... ServerArguments>
    explicit RecordingServer(ServerArguments&&... arguments)
        : server_(std::forward<ServerArguments>(arguments)...) {
        const auto route = [this](const httplib::Request& request, httplib::Response& response) {
            serve(request, response);
        };
        server_.Get(".*", route);
        server_.Post(".*", route);
        server_.Put(".*", route);
        server_.Delete(".*", route);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~RecordingServer() {
        server_.stop();
        thread_.join();
    }
    RecordingServer(const RecordingServer&) = delete;
    RecordingServer& operator=(const RecordingServer&) = delete;

    int port() const { return port_; }
    std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

    void respond(Handler handler) {
        std::lock_guard guard(mutex_);
        handler_ = std::move(handler);
    }
    // Answers every request with this status and body.
    void respondWith(int status, std::string body = {}) {
        respond([status, body](const httplib::Request&, httplib::Response& response) {
            response.status = status;
            if (!body.empty()) response.set_content(body, "application/json");
        });
    }

    std::vector<ReceivedRequest> received() const {
        std::lock_guard guard(mutex_);
        return received_;
    }
    std::size_t receivedCount() const {
        std::lock_guard guard(mutex_);
        return received_.size();
    }

private:
    void serve(const httplib::Request& request, httplib::Response& response) {
        Handler handler;
        {
            std::lock_guard guard(mutex_);
            received_.push_back({request.method, request.path, request.body, request.headers});
            handler = handler_;
        }
        if (handler) {
            handler(request, response);
        } else {
            response.status = 200;
        }
    }

    ServerType server_;
    int port_ = 0;
    std::thread thread_;
    mutable std::mutex mutex_;
    Handler handler_;
    std::vector<ReceivedRequest> received_;
};

// Holds server handlers back until the test lets them go, and tells the test when they have
// been reached.
class Gate {
public:
    void arrive() {
        std::lock_guard guard(mutex_);
        ++arrivals_;
        changed_.notify_all();
    }
    bool waitForArrivals(int count) {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, generousDeadline, [&] { return arrivals_ >= count; });
    }
    void open() {
        std::lock_guard guard(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    void waitOpen() {
        std::unique_lock guard(mutex_);
        changed_.wait_for(guard, generousDeadline, [&] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int arrivals_ = 0;
    bool open_ = false;
};

// Collects what an HTTP client completion receives, from any thread.
template <class Value>
class CompletionRecorder {
public:
    std::function<void(Value)> completion() {
        return [state = state_](Value value) {
            std::lock_guard guard(state->mutex);
            if (state->calls++ == 0) state->promise.set_value(std::move(value));
        };
    }
    // The first value, or absent when none came within the deadline.
    std::optional<Value> await(std::chrono::milliseconds deadline = generousDeadline) {
        if (state_->future.wait_for(deadline) != std::future_status::ready) return std::nullopt;
        return state_->future.get();
    }
    int calls() const {
        std::lock_guard guard(state_->mutex);
        return state_->calls;
    }

private:
    struct State {
        std::mutex mutex;
        int calls = 0;
        std::promise<Value> promise;
        std::future<Value> future = promise.get_future();
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

using RequestRecorder = CompletionRecorder<HttpRequestResult>;
using DownloadRecorder = CompletionRecorder<std::optional<std::filesystem::path>>;

// A SimpleTimer that notes the delays it is asked for and lets the real timer fire after a
// tiny one, so that a test can check a long back-off sequence without waiting for it.
class CompressedTimer final : public SimpleTimer {
public:
    explicit CompressedTimer(std::shared_ptr<SimpleTimer> timer) : timer_(std::move(timer)) {}

    void scheduleAndCancelPrevious(double seconds, std::function<void()> block) override {
        note(seconds);
        timer_->scheduleAndCancelPrevious(tinyDelay, std::move(block));
    }
    bool scheduleIfNotAlready(double seconds, std::function<void()> block) override {
        note(seconds);
        return timer_->scheduleIfNotAlready(tinyDelay, std::move(block));
    }
    void cancel() override { timer_->cancel(); }

    std::vector<double> requestedDelays() const {
        std::lock_guard guard(mutex_);
        return delays_;
    }

private:
    static constexpr double tinyDelay = 0.001;

    void note(double seconds) {
        std::lock_guard guard(mutex_);
        delays_.push_back(seconds);
    }

    std::shared_ptr<SimpleTimer> timer_;
    mutable std::mutex mutex_;
    std::vector<double> delays_;
};

inline std::optional<std::filesystem::path> programOnPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string directory; std::getline(directories, directory, ':');) {
        const std::filesystem::path candidate = std::filesystem::path(directory) / name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::nullopt;
}

// A throw-away CA and a server certificate for one host name, made with the openssl tool.
struct TestCertificates {
    std::filesystem::path caCertificate;
    std::filesystem::path serverCertificate;
    std::filesystem::path serverKey;
};

inline std::optional<TestCertificates> makeTestCertificates(const std::filesystem::path& openssl,
                                                            const std::filesystem::path& directory,
                                                            const std::string& hostName) {
    const TestCertificates made{directory / "ca.pem", directory / "server.pem",
                                directory / "server.key"};
    const auto caKey = directory / "ca.key";
    const auto request = directory / "server.csr";
    const auto extensions = directory / "server.ext";
    std::ofstream(extensions) << "subjectAltName=DNS:" << hostName << "\nbasicConstraints=CA:FALSE\n"
                              << "keyUsage=critical,digitalSignature\nextendedKeyUsage=serverAuth\n";
    const std::vector<std::vector<std::string>> steps = {
        {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
         "-days", "2", "-subj", "/CN=Tern Test CA", "-addext", "basicConstraints=critical,CA:TRUE",
         "-addext", "keyUsage=critical,keyCertSign,cRLSign", "-keyout", caKey, "-out",
         made.caCertificate},
        {"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj",
         "/CN=" + hostName, "-keyout", made.serverKey, "-out", request},
        {"x509", "-req", "-in", request, "-CA", made.caCertificate, "-CAkey", caKey,
         "-CAcreateserial", "-days", "2", "-extfile", extensions, "-out", made.serverCertificate},
    };
    for (const auto& arguments : steps) {
        const auto result = vontu::testing::runProcess(openssl, arguments);
        if (result.exitCode != 0) {
            ADD_FAILURE() << "openssl " << arguments[0] << " failed: " << result.err;
            return std::nullopt;
        }
    }
    return made;
}

}  // namespace tern::testing
