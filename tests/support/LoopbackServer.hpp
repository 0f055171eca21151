#pragma once

#include <httplib.h>

#include <string>
#include <thread>

namespace vontu::testing {

// A cpp-httplib server on 127.0.0.1 with an ephemeral port, listening on a thread of its own
// from construction until destruction. Handlers are registered on server() before requests are
// made.
class LoopbackServer {
public:
    LoopbackServer() {
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        // The socket already listens; waiting for the accept loop makes stop() reliable.
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~LoopbackServer() {
        server_.stop();
        thread_.join();
    }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    httplib::Server& server() { return server_; }
    int port() const { return port_; }
    // A --connect-to entry that sends host:hostPort to this server.
    std::string connectTo(const std::string& host, int hostPort) const {
        return host + ":" + std::to_string(hostPort) + ":127.0.0.1:" + std::to_string(port_);
    }

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

}  // namespace vontu::testing
