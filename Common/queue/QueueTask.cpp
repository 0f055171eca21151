#include "Common/queue/QueueTask.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

using vontu::platform::Bytes;

std::expected<QueueTask, DecodingError> QueueTask::decode(const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto storageId = reader.decode<std::string>("storage_id");
    auto type = reader.decode<std::string>("type");
    auto data = reader.decode<Bytes>("data");
    auto runResults = reader.decode<QueueTaskRunResults>("run_results");
    if (!reader.ok()) return reader.failure();
    return QueueTask{std::move(storageId), std::move(type), std::move(data), runResults};
}

void QueueTask::encode(JsonEncoder& encoder) const {
    encoder.encode("storage_id", storageId);
    encoder.encode("type", type);
    encoder.encode("data", data);
    encoder.encode("run_results", runResults);
}

std::string QueueTask::description() const {
    return "QueueTask(storageId: " + quotedDescription(storageId) +
           ", type: " + quotedDescription(type) + ", data: " + std::to_string(data.size()) +
           " bytes, runResults: " + runResults.description() + ")";
}

}  // namespace tern
