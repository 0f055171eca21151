#pragma once

#include <expected>
#include <string>

#include "Common/queue/QueueTaskRunResults.hpp"
#include "Common/util/JsonCoding.hpp"
#include "platform/Bytes.hpp"

namespace tern {

// One queued request as its task file holds it. The inventory (QueueTaskMetadata) says which
// tasks are queued; this is what a task carries.
struct QueueTask {
    // Upper-case hyphenated UUID made at creation; also the task file's name.
    std::string storageId;
    // What kind of request this is ("trackEvent", "identifyProfile", ...); opaque to the queue.
    std::string type;
    // The JSON text of the task type's own data record; base64 in the file.
    vontu::platform::Bytes data;
    QueueTaskRunResults runResults;

    static std::expected<QueueTask, DecodingError> decode(const JsonDecoder& decoder);
    // {"data", "run_results", "storage_id", "type"}
    void encode(JsonEncoder& encoder) const;
    // "QueueTask(storageId: \"…\", type: \"trackEvent\", data: 12 bytes,
    //  runResults: QueueTaskRunResults(totalRuns: 0))"
    std::string description() const;

    bool operator==(const QueueTask&) const = default;
};

}  // namespace tern
