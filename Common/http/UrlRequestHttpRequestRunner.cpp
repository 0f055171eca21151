#include "Common/http/UrlRequestHttpRequestRunner.hpp"

#include <utility>

#include "platform/Env.hpp"
#include "platform/FileName.hpp"

namespace tern {

namespace {

namespace fs = std::filesystem;
using vontu::platform::Env;
using vontu::platform::HttpUrlResponse;
using vontu::platform::UrlError;
using vontu::platform::UrlRequest;

// Moves the session's temporary file into the library's download directory under the name the
// server suggested. Runs inside the download completion, while the temporary file still exists.
std::optional<fs::path> keepDownloadedFile(const std::optional<fs::path>& location,
                                           const std::optional<HttpUrlResponse>& response) {
    if (!location || !response) return std::nullopt;
    const auto suggestedName = response->suggestedFilename();
    if (!suggestedName) return std::nullopt;
    const auto fileName = UrlRequestHttpRequestRunner::safeFileName(*suggestedName);
    if (!fileName) return std::nullopt;

    Env& env = Env::current();
    const auto temporaryDirectory = env.temporaryDirectory();
    if (!temporaryDirectory) return std::nullopt;
    const fs::path directory =
        *temporaryDirectory / UrlRequestHttpRequestRunner::downloadDirectoryName;
    if (!env.createDirectories(directory)) return std::nullopt;
    const fs::path target = directory / *fileName;
    // Fails when a file of that name is already there: an earlier download is left alone.
    if (!env.moveItem(*location, target)) return std::nullopt;
    return target;
}

}  // namespace

void UrlRequestHttpRequestRunner::request(
    const HttpRequestParams& params, const std::shared_ptr<vontu::platform::UrlSession>& session,
    RequestCompletion onComplete) {
    UrlRequest request;
    request.url = params.url.absoluteString();
    request.method = params.method;
    request.body = params.body;
    request.timeoutInterval = requestTimeoutSeconds;
    if (params.headers) {
        for (const auto& [name, value] : *params.headers) request.headers.emplace_back(name, value);
    }
    session->dataTask(std::move(request), std::move(onComplete));
}

void UrlRequestHttpRequestRunner::downloadFile(
    const Url& url, DownloadFileType /*fileType*/,
    const std::shared_ptr<vontu::platform::UrlSession>& session, DownloadCompletion onComplete) {
    UrlRequest request;
    request.url = url.absoluteString();
    session->downloadTask(
        std::move(request),
        [onComplete = std::move(onComplete)](std::optional<fs::path> location,
                                             std::optional<HttpUrlResponse> response,
                                             std::optional<UrlError> /*error*/) {
            onComplete(keepDownloadedFile(location, response));
        });
}

std::optional<std::string> UrlRequestHttpRequestRunner::safeFileName(
    std::string_view suggestedName) {
    if (!vontu::platform::isSingleFileName(suggestedName)) return std::nullopt;
    return std::string(suggestedName);
}

}  // namespace tern
