#include "Common/queue/QueueTaskMetadata.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

using vontu::platform::Date;

namespace {

void combine(std::size_t& seed, std::size_t hash) {
    seed ^= hash + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}

// Equal dates must hash alike, and 0.0 equals -0.0.
std::size_t hashDate(Date date) {
    double seconds = date.secondsSince1970 == 0.0 ? 0.0 : date.secondsSince1970;
    return std::hash<double>{}(seconds);
}

}  // namespace

std::expected<QueueTaskMetadata, DecodingError> QueueTaskMetadata::decode(
    const JsonDecoder& decoder) {
    JsonRecordReader reader(decoder);
    auto taskPersistedId = reader.decode<std::string>("task_persisted_id");
    auto taskType = reader.decode<std::string>("task_type");
    auto groupStart = reader.decodeIfPresent<std::string>("group_start");
    auto groupMember = reader.decodeIfPresent<std::vector<std::string>>("group_member");
    auto createdAt = reader.decode<Date>("created_at");
    if (!reader.ok()) return reader.failure();
    return QueueTaskMetadata{std::move(taskPersistedId), std::move(taskType),
                             std::move(groupStart), std::move(groupMember), createdAt};
}

void QueueTaskMetadata::encode(JsonEncoder& encoder) const {
    encoder.encode("task_persisted_id", taskPersistedId);
    encoder.encode("task_type", taskType);
    encoder.encodeIfPresent("group_start", groupStart);
    encoder.encodeIfPresent("group_member", groupMember);
    encoder.encode("created_at", createdAt);
}

std::string QueueTaskMetadata::description() const {
    std::optional<std::string> groupStartText;
    if (groupStart) groupStartText = quotedDescription(*groupStart);
    std::optional<std::string> groupMemberText;
    if (groupMember) groupMemberText = listDescription(*groupMember);
    return "QueueTaskMetadata(taskPersistedId: " + quotedDescription(taskPersistedId) +
           ", taskType: " + quotedDescription(taskType) +
           ", groupStart: " + optionalDescription(groupStartText) +
           ", groupMember: " + optionalDescription(groupMemberText) +
           ", createdAt: " + describeDate(createdAt) + ")";
}

std::size_t QueueTaskMetadata::hashValue() const {
    std::hash<std::string> hashString;
    std::size_t seed = hashString(taskPersistedId);
    combine(seed, hashString(taskType));
    combine(seed, groupStart ? hashString(*groupStart) + 1 : 0);
    if (groupMember) {
        combine(seed, groupMember->size() + 1);
        for (const auto& group : *groupMember) combine(seed, hashString(group));
    } else {
        combine(seed, 0);
    }
    combine(seed, hashDate(createdAt));
    return seed;
}

}  // namespace tern
