#pragma once

// One transfer of the libcurl URL session and what sets it up and reads it: the request's
// checks, headers, method, body and time-outs, curl's callbacks, and the mapping of curl's
// results to the URL loading system's errors. The session (CurlUrlSession.cpp) drives
// transfers on its thread.

#include <curl/curl.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <expected>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/UrlSession.hpp"

namespace vontu::platform::linux_host::curl {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

inline UrlError makeError(UrlError::Code code, std::string description) {
    return UrlError{code, std::move(description)};
}

// ---------------------------------------------------------------------------------------------
// One task's transfer. The session thread owns everything below `cancelRequested`; other
// threads only ever set that flag.

struct Transfer {
    enum class Kind { data, download };

    Transfer(Kind transferKind, UrlRequest urlRequest) : kind(transferKind), request(std::move(urlRequest)) {}
    ~Transfer() {
        if (easy != nullptr) curl_easy_cleanup(easy);
        releaseResources();
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    // Gives up the curl handle, for the session to use again.
    CURL* takeEasyHandle() { return std::exchange(easy, nullptr); }

    // Everything but the curl handle.
    void releaseResources() {
        curl_slist_free_all(headerList);
        headerList = nullptr;
        closeFile();
    }

    // Closes the download file. Its last bytes may still be in the file's buffer, so a close
    // that fails is a failed write: false, with the write marked as failed.
    bool closeFile() {
        if (file == nullptr || std::fclose(std::exchange(file, nullptr)) == 0) return true;
        writeFailed = true;
        writeErrno = errno;
        return false;
    }

    void noteActivity() { lastActivity = Clock::now(); }

    const Kind kind;
    const UrlRequest request;
    DataTaskCompletion dataCompletion;
    DownloadTaskCompletion downloadCompletion;

    std::atomic<bool> cancelRequested{false};
    bool refused = false;  // set under the session's lock before the thread sees the transfer
    bool startedSecure = false;  // the request's own URL is https

    CURL* easy = nullptr;
    curl_slist* headerList = nullptr;
    std::array<char, CURL_ERROR_SIZE> errorText{};
    HttpUrlResponse response;
    Bytes body;
    std::size_t maxBytes = 0;
    std::size_t receivedBytes = 0;
    bool tooLarge = false;
    bool writeFailed = false;
    int writeErrno = 0;
    std::FILE* file = nullptr;
    fs::path filePath;
    // Idle time-out: the longest time without any bytes moving either way.
    std::optional<Clock::duration> idleLimit;
    Clock::time_point lastActivity = Clock::now();
    curl_off_t lastDownloaded = 0;
    curl_off_t lastUploaded = 0;
};

// Whether text is an HTTP token (a header name).
bool isToken(std::string_view text);
// The whole file, or absent when it cannot be read.
std::optional<std::string> readWholeFile(const fs::path& path);
// Makes the directory (0700) when missing; false when it is not a directory of this user's.
bool ensurePrivateDirectory(const fs::path& directory);

// curl's callbacks; user is the Transfer. They run on the session thread.
std::size_t onHeaderLine(char* data, std::size_t size, std::size_t count, void* user);
std::size_t onBodyBytes(char* data, std::size_t size, std::size_t count, void* user);
int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded);

// Setting up a transfer: whether the URL can be sent (true for https), the header list
// (the session's headers, then the request's), the method and body, the time-outs.
std::expected<bool, UrlError> checkUrl(const std::string& url);
std::expected<curl_slist*, UrlError> headerListFor(
    const UrlRequest& request, const std::map<std::string, std::string>& sessionHeaders);
void setMethodAndBody(CURL* easy, const UrlRequest& request);
void setTimeouts(Transfer& transfer, const UrlSessionConfiguration& config);

// The URL loading system's error for a transfer that curl ended with result.
UrlError errorForCurlResult(const Transfer& transfer, CURLcode result);

}  // namespace vontu::platform::linux_host::curl
