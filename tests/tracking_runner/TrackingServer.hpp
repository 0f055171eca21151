#pragma once

#include <cctype>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <httplib.h>

namespace tern::testing {

// A tracking server on 127.0.0.1 (ephemeral port) that answers every request with 200 "{}" and
// keeps what it received.
//
// Unlike the shared LoopbackServer it registers its handlers before the listening thread
// starts: the requests come from other processes, so nothing else would order the handlers'
// creation before their first use for ThreadSanitizer.
class TrackingServer {
public:
    struct Request {
        std::string method;
        std::string path;
        std::map<std::string, std::string> headers;
        std::string body;

        std::string header(const std::string& name) const {
            for (const auto& [key, value] : headers) {
                if (equalsIgnoringCase(key, name)) return value;
            }
            return "";
        }
    };

    TrackingServer() {
        auto handler = [this](const httplib::Request& request, httplib::Response& response) {
            record(request);
            response.status = 200;
            response.set_content("{}", "application/json");
        };
        server_.Get(".*", handler);
        server_.Post(".*", handler);
        server_.Put(".*", handler);
        server_.Delete(".*", handler);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        // The socket already listens; waiting for the accept loop makes stop() reliable.
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~TrackingServer() {
        server_.stop();
        thread_.join();
    }
    TrackingServer(const TrackingServer&) = delete;
    TrackingServer& operator=(const TrackingServer&) = delete;

    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

    std::vector<Request> requests() const {
        std::lock_guard guard(mutex_);
        return requests_;
    }

private:
    static bool equalsIgnoringCase(const std::string& a, const std::string& b) {
        if (a.size() != b.size()) return false;
        for (std::size_t i = 0; i < a.size(); ++i) {
            if (std::tolower(static_cast<unsigned char>(a[i])) !=
                std::tolower(static_cast<unsigned char>(b[i]))) {
                return false;
            }
        }
        return true;
    }

    void record(const httplib::Request& request) {
        Request received{request.method, request.path, {}, request.body};
        for (const auto& [name, value] : request.headers) received.headers[name] = value;
        std::lock_guard guard(mutex_);
        requests_.push_back(std::move(received));
    }

    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

}  // namespace tern::testing
