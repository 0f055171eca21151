#pragma once

#include <memory>
#include <string>

#include "platform/UrlSession.hpp"
#include "platform/linux/NetworkOptions.hpp"

namespace vontu::platform::linux_host {

// A URL session on libcurl's multi interface with one thread of its own. The download tasks'
// temporary files go to downloadDirectory. The first call loads the libcurl module; when it
// cannot be loaded, the session fails every task with an error saying so.
std::shared_ptr<UrlSession> makeCurlUrlSession(const UrlSessionConfiguration& config,
                                               const NetworkOptions& network,
                                               const std::filesystem::path& downloadDirectory);

// libcurl's verdict on a URL with a scheme and an authority, through the same module; false
// when the module cannot be loaded.
bool curlAcceptsUrl(const std::string& url);

}  // namespace vontu::platform::linux_host
