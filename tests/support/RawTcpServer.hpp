#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>

namespace vontu::testing {

// A TCP listener on 127.0.0.1 that answers each connection with fixed raw bytes (perhaps none,
// perhaps a broken response) and then closes it: the misbehaving servers that an HTTP server
// library will not play.
class RawTcpServer {
public:
    explicit RawTcpServer(std::string reply) : reply_(std::move(reply)) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
        ::listen(listener_, 8);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~RawTcpServer() {
        stopping_ = true;
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    RawTcpServer(const RawTcpServer&) = delete;
    RawTcpServer& operator=(const RawTcpServer&) = delete;

    std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

    // The origin of a port on which nothing listens any more.
    static std::string closedOrigin() { return RawTcpServer("").origin(); }

private:
    void serve() {
        while (!stopping_) {
            const int connection = ::accept(listener_, nullptr, nullptr);
            if (connection < 0) return;
            // Read the request head before answering, so the client is not cut off mid-send.
            std::string request;
            char buffer[4096];
            while (request.find("\r\n\r\n") == std::string::npos) {
                const auto count = ::recv(connection, buffer, sizeof buffer, 0);
                if (count <= 0) break;
                request.append(buffer, static_cast<std::size_t>(count));
            }
            if (!reply_.empty()) ::send(connection, reply_.data(), reply_.size(), MSG_NOSIGNAL);
            ::close(connection);
        }
    }

    std::string reply_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace vontu::testing
