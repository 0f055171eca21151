#pragma once

#include <cstddef>
#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Common/util/JsonCoding.hpp"
#include "platform/Date.hpp"

namespace tern {

// One entry of the queue's inventory: enough about a task to pick the next one to run
// without opening its file.
struct QueueTaskMetadata {
    // The task's storageId.
    std::string taskPersistedId;
    // The task's type.
    std::string taskType;
    // The group (a QueueTaskGroup string) that this task opens.
    std::optional<std::string> groupStart;
    // The groups that must have run before this task. An empty list is kept as empty: it is
    // written as [] and is not the same as no list.
    std::optional<std::vector<std::string>> groupMember;
    vontu::platform::Date createdAt;

    static std::expected<QueueTaskMetadata, DecodingError> decode(const JsonDecoder& decoder);
    // {"created_at", "group_member", "group_start", "task_persisted_id", "task_type"}; the two
    // group keys are left out when absent.
    void encode(JsonEncoder& encoder) const;
    // "QueueTaskMetadata(taskPersistedId: \"…\", taskType: \"…\", groupStart: nil,
    //  groupMember: Optional([\"…\"]), createdAt: 2024-01-31 12:00:00 +0000)"
    std::string description() const;

    // Equality and hashing cover all five fields.
    bool operator==(const QueueTaskMetadata&) const = default;
    std::size_t hashValue() const;
};

}  // namespace tern

template <>
struct std::hash<tern::QueueTaskMetadata> {
    std::size_t operator()(const tern::QueueTaskMetadata& metadata) const noexcept {
        return metadata.hashValue();
    }
};
