#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/AutoMockable.hpp"
#include "platform/Bytes.hpp"

namespace vontu::platform {

struct UrlRequest {
    std::string url;
    std::string method = "GET";
    // Sent in this order, after the session's additional headers; a header of the same name
    // replaces the session's.
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<Bytes> body;
    // Idle time-out of this request in seconds; absent uses the session's request time-out.
    std::optional<double> timeoutInterval;
    // The largest response body this request takes; absent uses the session's.
    std::optional<std::size_t> maxResponseBytes;
};

struct HttpUrlResponse {
    std::string url;  // the final URL, after redirects
    long statusCode = 0;
    std::vector<std::pair<std::string, std::string>> headers;  // as received, in order

    // The value of the first header of that name (case-insensitive), if any.
    std::optional<std::string> headerValue(const std::string& name) const;
    // The file name the server suggests: the Content-Disposition filename, else the URL's last
    // path component (percent-decoded). Raw: callers must still reduce it to a safe name.
    std::optional<std::string> suggestedFilename() const;
};

struct UrlError {
    // The URL loading system's error codes that callers tell apart.
    enum class Code {
        cancelled,
        timedOut,
        badUrl,
        cannotFindHost,         // the host name does not resolve
        cannotConnect,          // nothing answers at the address
        networkConnectionLost,  // the connection broke during the exchange
        notConnectedToInternet, // no network at all
        secureConnectionFailed,
        tooManyRedirects,
        responseTooLarge,
        cannotWriteFile,
        other,
    };
    Code code = Code::other;
    std::string localizedDescription;
};

// Data task completion: exactly one of (data and response) or error is meaningful; on error the
// response may still be present when the failure came after the headers.
using DataTaskCompletion = std::function<void(std::optional<Bytes> data,
                                              std::optional<HttpUrlResponse> response,
                                              std::optional<UrlError> error)>;
// Download task completion: the downloaded file lies in a temporary location that belongs to
// the session; the completion must move it away before it returns, after which it is deleted.
using DownloadTaskCompletion = std::function<void(std::optional<std::filesystem::path> location,
                                                  std::optional<HttpUrlResponse> response,
                                                  std::optional<UrlError> error)>;

struct UrlSessionConfiguration {
    std::map<std::string, std::string> additionalHeaders;
    // Longest wait for the next bytes of a request (NSURLSession's timeoutIntervalForRequest).
    std::optional<double> requestTimeout;
    // Longest time a whole request may take (timeoutIntervalForResource).
    std::optional<double> resourceTimeout;
    // A response body or download larger than this fails with responseTooLarge.
    std::size_t maxResponseBytes = 10u * 1024u * 1024u;
    long maxRedirects = 10;
};

class UrlSessionTask : public AutoMockable {
public:
    // Stops the task; its completion then runs once with a cancelled error unless it already
    // ran. Safe from any thread, any number of times.
    virtual void cancel() = 0;
};

// A URL session: runs HTTP(S) tasks concurrently on a thread of its own and calls each task's
// completion exactly once, on that thread. TLS certificates are always verified, and a task
// that starts over https never follows a redirect out of it: it fails with
// networkConnectionLost, as the network's fault, instead of sending its headers and body in
// clear. Redirects to another host go on without the Authorization header. Sessions are
// shared_ptr-owned; a session that is destroyed cancels what is still running.
class UrlSession : public AutoMockable {
public:
    // Start a data task at once (created resumed). After invalidation the completion is called
    // at once with a cancelled error.
    virtual std::shared_ptr<UrlSessionTask> dataTask(UrlRequest request,
                                                     DataTaskCompletion completion) = 0;
    virtual std::shared_ptr<UrlSessionTask> downloadTask(UrlRequest request,
                                                         DownloadTaskCompletion completion) = 0;
    // Running tasks go on to their end; new tasks are refused.
    virtual void finishTasksAndInvalidate() = 0;
    // Running tasks are cancelled (their completions run with cancelled); new tasks are refused.
    virtual void invalidateAndCancel() = 0;
};

}  // namespace vontu::platform
