#pragma once

#include <filesystem>
#include <memory>

#include "platform/UrlSession.hpp"
#include "platform/linux/NetworkOptions.hpp"

namespace vontu::platform::linux_host {

// The libcurl URL sessions are a loadable module (see ModuleLoader.hpp): libcurl maps some
// thirty libraries (TLS, Kerberos, LDAP, ...) that a read receipt never needs.
inline constexpr const char* kUrlSessionModuleFileName = "libvontu_urlsession_curl.so";
inline constexpr const char* kUrlSessionModuleVariable = "VONTU_URLSESSION_MODULE";

// The module's export that makes a session into *session, with C linkage. The module and its
// host are built together, so C++ types may cross.
inline constexpr const char* kMakeUrlSessionSymbol = "vontu_urlsession_make";
using MakeUrlSessionFunction = void (*)(const UrlSessionConfiguration* config,
                                        const NetworkOptions* network,
                                        const std::filesystem::path* downloadDirectory,
                                        std::shared_ptr<UrlSession>* session);

// A second export: whether libcurl's URL parser accepts the URL (any scheme).
inline constexpr const char* kAcceptsUrlSymbol = "vontu_urlsession_accepts_url";
using AcceptsUrlFunction = bool (*)(const char* url);

}  // namespace vontu::platform::linux_host
