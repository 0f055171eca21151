#include "Common/queue/QueueQueryCriteria.hpp"

#include <vector>

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

std::string QueueQueryCriteria::description() const {
    const std::vector<std::string> groups(excludeGroups.begin(), excludeGroups.end());
    return "QueueQueryCriteria(excludeGroups: Set(" + listDescription(groups) + "))";
}

}  // namespace tern
