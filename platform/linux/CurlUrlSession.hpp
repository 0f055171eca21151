#pragma once

#include <memory>

#include "platform/UrlSession.hpp"
#include "platform/linux/NetworkOptions.hpp"

namespace vontu::platform::linux_host {

// A URL session on libcurl's multi interface with one thread of its own. The download tasks'
// temporary files go to downloadDirectory. The first call loads the libcurl module; when it
// cannot be loaded, the session fails every task with an error saying so.
std::shared_ptr<UrlSession> makeCurlUrlSession(const UrlSessionConfiguration& config,
                                               const NetworkOptions& network,
                                               const std::filesystem::path& downloadDirectory);

}  // namespace vontu::platform::linux_host
