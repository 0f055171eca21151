#include "Common/queue/QueueTaskGroup.hpp"

#include "Common/queue/RecordDescriptionText.hpp"

namespace tern {

QueueTaskGroup QueueTaskGroup::identifiedProfile(std::string identifier) {
    return QueueTaskGroup(Kind::identifiedProfile, std::move(identifier));
}

QueueTaskGroup QueueTaskGroup::registeredPushToken(std::string token) {
    return QueueTaskGroup(Kind::registeredPushToken, std::move(token));
}

std::string QueueTaskGroup::string() const {
    switch (kind_) {
        case Kind::identifiedProfile: return "identified_profile_" + value_;
        case Kind::registeredPushToken: return "registered_push_token" + value_;
    }
    return value_;
}

std::string QueueTaskGroup::description() const {
    switch (kind_) {
        case Kind::identifiedProfile: return "identifiedProfile(" + quotedDescription(value_) + ")";
        case Kind::registeredPushToken:
            return "registeredPushToken(" + quotedDescription(value_) + ")";
    }
    return quotedDescription(value_);
}

}  // namespace tern
