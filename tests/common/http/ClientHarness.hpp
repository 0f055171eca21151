#pragma once

#include <memory>
#include <string>

#include "Common/config/SdkConfig.hpp"
#include "Common/http/TernAPIHttpRetryPolicy.hpp"
#include "Common/http/TernHttpClient.hpp"
#include "Common/http/UrlRequestHttpRequestRunner.hpp"
#include "Common/storage/TernGlobalDataStore.hpp"
#include "Common/storage/UserDefaultsKeyValueStorage.hpp"
#include "Common/util/DeviceMetricsGrabberImpl.hpp"
#include "Common/util/TernDeviceInfo.hpp"
#include "Common/util/TernSimpleTimer.hpp"
#include "Common/util/UserAgentUtilImpl.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/common/http/HttpTestSupport.hpp"

namespace tern::testing {

inline constexpr const char* testSiteId = "abc";
inline constexpr const char* testApiKey = "def";
// base64("abc:def")
inline constexpr const char* testAuthorization = "Basic YWJjOmRlZg==";

// The collaborators of a TernHttpClient, all real, on the process's current Env (which must
// be installed first). The retry timer is a CompressedTimer over a real TernSimpleTimer.
struct ClientHarness {
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<GlobalDataStore> globalDataStore = std::make_shared<TernGlobalDataStore>(
        std::make_shared<UserDefaultsKeyValueStorage>(testSiteId,
                                                      std::make_shared<DeviceMetricsGrabberImpl>()));
    std::shared_ptr<UserAgentUtil> userAgentUtil = std::make_shared<UserAgentUtilImpl>(
        std::make_shared<TernDeviceInfo>(), SdkConfig::Factory::create(Region::US));
    std::shared_ptr<CompressedTimer> retryTimer = std::make_shared<CompressedTimer>(
        TernSimpleTimer::make(std::make_shared<RecordingLogger>()));

    std::shared_ptr<TernHttpClient> makeClient(
        const std::string& trackingApiUrl,
        std::shared_ptr<HttpRetryPolicy> retryPolicy = std::make_shared<TernAPIHttpRetryPolicy>(),
        std::shared_ptr<SimpleTimer> timer = nullptr) {
        return TernHttpClient::make(testSiteId, testApiKey, HttpBaseUrls{trackingApiUrl},
                                    std::make_shared<UrlRequestHttpRequestRunner>(),
                                    std::make_shared<JsonAdapter>(logger), globalDataStore, logger,
                                    timer ? std::move(timer) : retryTimer, std::move(retryPolicy),
                                    userAgentUtil);
    }

    // Whether a request carried the client's credentials and headers, or none of them.
    void expectCredentials(const ReceivedRequest& request, bool expected) const {
        EXPECT_EQ(request.header("Authorization"), expected ? std::optional<std::string>(testAuthorization) : std::nullopt);
        EXPECT_EQ(request.header("Content-Type") == "application/json; charset=utf-8", expected);
        EXPECT_EQ(request.header("User-Agent") == userAgentUtil->getUserAgentHeaderValue(), expected);
    }
};

inline HttpRequestParams requestTo(const std::string& url, std::string method = "POST",
                                   std::optional<vontu::platform::Bytes> body = std::nullopt,
                                   std::optional<HttpRequestParams::Headers> headers = std::nullopt) {
    auto parsed = Url::parse(url);
    EXPECT_TRUE(parsed) << url;
    return HttpRequestParams(std::move(method), std::move(*parsed), std::move(headers), std::move(body));
}

// Sends one request and waits for its result.
inline std::optional<HttpRequestResult> send(HttpClient& client, HttpRequestParams params) {
    RequestRecorder recorder;
    client.request(std::move(params), recorder.completion());
    return recorder.await();
}

inline std::optional<std::filesystem::path> download(HttpClient& client, const std::string& url) {
    auto parsed = Url::parse(url);
    EXPECT_TRUE(parsed) << url;
    DownloadRecorder recorder;
    client.downloadFile(std::move(*parsed), DownloadFileType::richPushImage, recorder.completion());
    auto result = recorder.await();
    EXPECT_TRUE(result) << "no download result for " << url;
    return result ? *result : std::nullopt;
}

}  // namespace tern::testing
