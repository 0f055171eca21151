#pragma once

#include <httplib.h>

#include <functional>
#include <string>
#include <thread>

namespace vontu::testing {

// A cpp-httplib server on 127.0.0.1 with an ephemeral port, listening on a thread of its own
// from construction until destruction. Handlers are best registered through the constructor's
// setup, before the server thread starts; registering on server() later races with requests
// that are already arriving.
class LoopbackServer {
public:
    explicit LoopbackServer(const std::function<void(httplib::Server&)>& setup = {}) {
        if (setup) setup(server_);
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
