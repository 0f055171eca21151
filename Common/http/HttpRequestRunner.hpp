#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "Common/http/DownloadFileType.hpp"
#include "Common/http/HttpRequestParams.hpp"
#include "Common/util/Url.hpp"
#include "platform/AutoMockable.hpp"
#include "platform/UrlSession.hpp"

namespace tern {

// The thin transport under the HTTP client: it sends what it is given on the session it is
// given and reports what came back, interpreting nothing. Completions run on the session's
// thread.
class HttpRequestRunner : public vontu::AutoMockable {
public:
    // Body, response and error exactly as the session reported them.
    using RequestCompletion = vontu::platform::DataTaskCompletion;
    // The downloaded file, moved to a place of the library's own; absent on any failure.
    using DownloadCompletion = std::function<void(std::optional<std::filesystem::path>)>;

    virtual void request(const HttpRequestParams& params,
                         const std::shared_ptr<vontu::platform::UrlSession>& session,
                         RequestCompletion onComplete) = 0;
    virtual void downloadFile(const Url& url, DownloadFileType fileType,
                              const std::shared_ptr<vontu::platform::UrlSession>& session,
                              DownloadCompletion onComplete) = 0;
};

}  // namespace tern
