#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/http/HttpRequestRunner.hpp"

namespace tern {

// HttpRequestRunner on the platform's URL sessions.
//
// Downloads land in "tern_sdk" under the app's temporary directory, named as the server
// suggests. The suggested name comes from the response (a Content-Disposition header or the
// URL), so it is treated as hostile: only a plain name that stays inside that directory is
// used, and an existing file of the same name is never replaced.
class UrlRequestHttpRequestRunner final : public HttpRequestRunner {
public:
    static constexpr double requestTimeoutSeconds = 60.0;
    static constexpr const char* downloadDirectoryName = "tern_sdk";

    void request(const HttpRequestParams& params,
                 const std::shared_ptr<vontu::platform::UrlSession>& session,
                 RequestCompletion onComplete) override;
    void downloadFile(const Url& url, DownloadFileType fileType,
                      const std::shared_ptr<vontu::platform::UrlSession>& session,
                      DownloadCompletion onComplete) override;

    // The suggested name if it names a file directly inside a directory: not empty, not "."
    // or "..", without "/" or NUL. Absent otherwise.
    static std::optional<std::string> safeFileName(std::string_view suggestedName);
};

}  // namespace tern
