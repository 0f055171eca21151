#include "Common/queue/QueueTaskRunResults.hpp"

namespace tern {

std::expected<QueueTaskRunResults, DecodingError> QueueTaskRunResults::decode(
    const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto totalRuns = reader.decode<std::int64_t>("total_runs");
    if (!reader.ok()) return reader.failure();
    return QueueTaskRunResults{totalRuns};
}

void QueueTaskRunResults::encode(JsonEncoder& encoder) const {
    encoder.encode("total_runs", totalRuns);
}

std::string QueueTaskRunResults::description() const {
    return "QueueTaskRunResults(totalRuns: " + std::to_string(totalRuns) + ")";
}

}  // namespace tern
