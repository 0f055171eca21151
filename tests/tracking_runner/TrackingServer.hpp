#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/LoopbackServer.hpp"

namespace tern::testing {

// A tracking API on 127.0.0.1 that keeps every request it receives and answers 200 "{}", or
// the status that the test's rule gives for the request.
class TrackingServer {
public:
    struct Request {
        std::string method;
        std::string path;    // percent escapes decoded
        std::string target;  // as the request line has it
        httplib::Headers headers;  // looked up without regard to case
        std::string body;

        std::string header(const std::string& name) const {
            auto found = headers.find(name);
            return found == headers.end() ? "" : found->second;
        }
        nlohmann::json json() const { return nlohmann::json::parse(body, nullptr, false); }
    };
    using StatusRule = std::function<std::optional<int>(const Request&)>;

    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(server_.port()); }
    std::vector<Request> requests() const {
        std::lock_guard guard(mutex_);
        return requests_;
    }
    // "PUT /api/v1/customers/A" for each request, in order of arrival.
    std::vector<std::string> requestLines() const {
        std::vector<std::string> lines;
        for (const auto& request : requests()) lines.push_back(request.method + " " + request.path);
        return lines;
    }
    void clearRequests() {
        std::lock_guard guard(mutex_);
        requests_.clear();
    }
    void setStatusRule(StatusRule rule) {
        std::lock_guard guard(mutex_);
        statusRule_ = std::move(rule);
    }

private:
    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    StatusRule statusRule_;
    // Last, as it starts serving while it is constructed. Its handlers are in place before that,
    // which also orders them before their first use by the hosts' processes.
    vontu::testing::LoopbackServer server_{[this](httplib::Server& server) {
        auto handler = [this](const httplib::Request& request, httplib::Response& response) {
            Request received{request.method, request.path, request.target, request.headers,
                             request.body};
            std::lock_guard guard(mutex_);
            response.status = statusRule_ ? statusRule_(received).value_or(200) : 200;
            response.set_content("{}", "application/json");
            requests_.push_back(std::move(received));
        };
        server.Get(".*", handler).Post(".*", handler).Put(".*", handler).Delete(".*", handler);
    }};
};

}  // namespace tern::testing
