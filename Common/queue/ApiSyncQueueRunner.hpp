#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>

#include "Common/config/HttpBaseUrls.hpp"
#include "Common/config/SdkConfig.hpp"
#include "Common/config/TernApiEndpoint.hpp"
#include "Common/http/HttpClient.hpp"
#include "Common/http/HttpRequestError.hpp"
#include "Common/queue/QueueTask.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "Common/util/JsonCoding.hpp"
#include "Common/util/Logger.hpp"
#include "platform/Bytes.hpp"

namespace tern {

// What every queue runner shares: reading a task's data record and sending one request to the
// tracking service. The queue's own runner and each module's runner derive from it.
class ApiSyncQueueRunner {
public:
    using Completion = std::function<void(std::expected<void, HttpRequestError>)>;

    ApiSyncQueueRunner(std::string siteId, std::shared_ptr<JsonAdapter> jsonAdapter,
                       std::shared_ptr<Logger> logger, std::shared_ptr<HttpClient> httpClient,
                       const SdkConfig& sdkConfig);
    virtual ~ApiSyncQueueRunner() = default;
    ApiSyncQueueRunner(const ApiSyncQueueRunner&) = delete;
    ApiSyncQueueRunner& operator=(const ApiSyncQueueRunner&) = delete;

protected:
    // The task's data as a Record; absent (and logged) when it does not decode as one.
    template <class Record>
    std::optional<Record> getTaskData(const QueueTask& task) const {
        if (auto record = jsonAdapter_->fromJson<Record>(task.data, true)) return record;
        logDecodingFailure(task.data, unqualifiedTypeName(typeid(Record)));
        return std::nullopt;
    }

    // Sends requestBody to the endpoint and reports success (the response body is not needed)
    // or the HTTP client's error unchanged. A request that cannot be built is noRequestMade.
    void performHttpRequest(const TernApiEndpoint& endpoint,
                            std::optional<vontu::platform::Bytes> requestBody,
                            Completion onComplete);

    // The outcome handed on for every task whose data does not decode: such a task cannot be
    // sent, and the queue decides what becomes of it.
    const HttpRequestError& failureIfDontDecodeTaskData() const {
        return failureIfDontDecodeTaskData_;
    }

    const std::shared_ptr<JsonAdapter> jsonAdapter_;
    const std::string siteId_;
    const std::shared_ptr<Logger> logger_;
    const std::shared_ptr<HttpClient> httpClient_;
    const HttpBaseUrls baseHttpUrls_;

private:
    // "TrackDeliveryEventRequestBody" for tern::TrackDeliveryEventRequestBody: the name that
    // the log line shows, without the namespace.
    static std::string unqualifiedTypeName(const std::type_info& type);
    void logDecodingFailure(const vontu::platform::Bytes& data,
                            const std::string& typeName) const;

    const HttpRequestError failureIfDontDecodeTaskData_;
};

}  // namespace tern
