#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace vontu::platform::linux_host {

// Process-wide settings of every URL session, for tests and staging.
struct NetworkOptions {
    // Entries of the form HOST:PORT:ADDR:PORT, as curl's --connect-to: a request for HOST:PORT
    // connects to ADDR:PORT instead, keeping HOST for TLS and the Host header.
    std::vector<std::string> connectTo;
    // An extra trusted CA certificate file (PEM), in addition to the system's store.
    std::filesystem::path extraCaFile;
};

}  // namespace vontu::platform::linux_host
