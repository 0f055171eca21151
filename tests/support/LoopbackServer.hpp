#pragma once

#include <httplib.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace vontu::testing {

// A cpp-httplib server (plain, or httplib::SSLServer with its certificate and key as the extra
// constructor arguments) on 127.0.0.1 with an ephemeral port, listening on a thread of its own
// from construction until destruction. Handlers are best registered through the constructor's
// setup, before the server thread starts; registering on server() later races with requests
// that are already arriving.
template <class ServerType>
class BasicLoopbackServer {
public:
    template <class... ServerArguments>
    explicit BasicLoopbackServer(const std::function<void(httplib::Server&)>& setup = {},
                                 ServerArguments&&... arguments)
        : server_(std::forward<ServerArguments>(arguments)...) {
        if (setup) setup(server_);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        // The socket already listens; waiting for the accept loop makes stop() reliable.
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~BasicLoopbackServer() {
        server_.stop();
        thread_.join();
    }
    BasicLoopbackServer(const BasicLoopbackServer&) = delete;
    BasicLoopbackServer& operator=(const BasicLoopbackServer&) = delete;

    ServerType& server() { return server_; }
    int port() const { return port_; }
    // http://127.0.0.1:<port> followed by path.
    std::string url(const std::string& path = {}) const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }
    // A --connect-to entry that sends host:hostPort to this server.
    std::string connectTo(const std::string& host, int hostPort) const {
        return host + ":" + std::to_string(hostPort) + ":127.0.0.1:" + std::to_string(port_);
    }

private:
    ServerType server_;
    int port_ = 0;
    std::thread thread_;
};

using LoopbackServer = BasicLoopbackServer<httplib::Server>;

}  // namespace vontu::testing
