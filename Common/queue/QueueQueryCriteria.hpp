#pragma once

#include <set>
#include <string>

namespace tern {

// What the search for the next task of a run leaves out.
struct QueueQueryCriteria {
    // The group strings (QueueTaskGroup::string()) whose member tasks must not run for the
    // rest of this run, because the task that opens the group failed.
    std::set<std::string> excludeGroups;

    // "QueueQueryCriteria(excludeGroups: Set([\"identified_profile_a\"]))", the groups in
    // sorted order.
    std::string description() const;

    bool operator==(const QueueQueryCriteria&) const = default;
};

}  // namespace tern
