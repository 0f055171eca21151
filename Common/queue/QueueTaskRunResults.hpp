#pragma once

#include <cstdint>
#include <expected>
#include <string>

#include "Common/util/JsonCoding.hpp"

namespace tern {

// How often a queued task has been run: only runs that failed with an error worth retrying
// are counted, so a new task starts at 0.
struct QueueTaskRunResults {
    std::int64_t totalRuns = 0;

    static std::expected<QueueTaskRunResults, DecodingError> decode(const JsonDecoder& decoder);
    // {"total_runs": n}
    void encode(JsonEncoder& encoder) const;
    // "QueueTaskRunResults(totalRuns: 1)"
    std::string description() const;

    bool operator==(const QueueTaskRunResults&) const = default;
};

}  // namespace tern
