#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/tracking_runner/TrackingServer.hpp"

namespace tern::testing {

// An HTTP/1.1 listener on 127.0.0.1 that reads each request exactly as its framing says (a
// request without Content-Length has no body), keeps it, answers 200 "{}" and closes. For
// requests that a server library would refuse before a handler sees them: cpp-httplib waits
// for a body of a PUT that announces no length, then answers 400.
class RawHttpRecorder {
public:
    RawHttpRecorder() {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 8);
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~RawHttpRecorder() {
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    RawHttpRecorder(const RawHttpRecorder&) = delete;
    RawHttpRecorder& operator=(const RawHttpRecorder&) = delete;

    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

    std::vector<TrackingServer::Request> requests() const {
        std::lock_guard guard(mutex_);
        return requests_;
    }

private:
    void serve() {
        for (;;) {
            const int connection = ::accept(listener_, nullptr, nullptr);
            if (connection < 0) return;
            if (auto request = readRequest(connection)) {
                std::lock_guard guard(mutex_);
                requests_.push_back(std::move(*request));
            }
            static constexpr char reply[] =
                "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n"
                "Connection: close\r\n\r\n{}";
            ::send(connection, reply, sizeof reply - 1, MSG_NOSIGNAL);
            ::close(connection);
        }
    }

    static std::optional<TrackingServer::Request> readRequest(int connection) {
        std::string received;
        char buffer[4096];
        std::size_t headEnd;
        while ((headEnd = received.find("\r\n\r\n")) == std::string::npos) {
            const auto count = ::recv(connection, buffer, sizeof buffer, 0);
            if (count <= 0) return std::nullopt;
            received.append(buffer, static_cast<std::size_t>(count));
        }
        TrackingServer::Request request;
        std::istringstream head(received.substr(0, headEnd));
        std::string line;
        std::getline(head, line);
        std::istringstream requestLine(line);
        requestLine >> request.method >> request.path;
        std::size_t contentLength = 0;
        while (std::getline(head, line)) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            auto colon = line.find(':');
            if (colon == std::string::npos) continue;
            std::string name = line.substr(0, colon);
            auto valueStart = line.find_first_not_of(' ', colon + 1);
            std::string value = valueStart == std::string::npos ? "" : line.substr(valueStart);
            request.headers[name] = value;
            for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            if (name == "content-length") {
                contentLength = static_cast<std::size_t>(std::strtoul(value.c_str(), nullptr, 10));
            }
        }
        request.body = received.substr(headEnd + 4);
        while (request.body.size() < contentLength) {
            const auto count = ::recv(connection, buffer, sizeof buffer, 0);
            if (count <= 0) break;
            request.body.append(buffer, static_cast<std::size_t>(count));
        }
        return request;
    }

    int listener_ = -1;
    int port_ = 0;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<TrackingServer::Request> requests_;
};

}  // namespace tern::testing
