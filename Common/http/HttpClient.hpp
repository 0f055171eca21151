#pragma once

#include <expected>
#include <filesystem>
#include <functional>
#include <optional>

#include "Common/http/DownloadFileType.hpp"
#include "Common/http/HttpRequestError.hpp"
#include "Common/http/HttpRequestParams.hpp"
#include "Common/util/Url.hpp"
#include "platform/AutoMockable.hpp"
#include "platform/Bytes.hpp"

namespace tern {

// The response body of a successful request, or why there is none.
using HttpRequestResult = std::expected<vontu::platform::Bytes, HttpRequestError>;

// The library's HTTP client: requests to the Tern API and downloads from anywhere.
class HttpClient : public vontu::AutoMockable {
public:
    using RequestCompletion = std::function<void(HttpRequestResult)>;
    // The local file, or absent when the download failed.
    using DownloadCompletion = std::function<void(std::optional<std::filesystem::path>)>;

    virtual void request(HttpRequestParams params, RequestCompletion onComplete) = 0;
    virtual void downloadFile(Url url, DownloadFileType fileType,
                              DownloadCompletion onComplete) = 0;
    // Ends the client: with finishTasks, running tasks go on to their end; without, they are
    // cancelled at once. The client cannot be used afterwards.
    virtual void cancel(bool finishTasks) = 0;
};

}  // namespace tern
