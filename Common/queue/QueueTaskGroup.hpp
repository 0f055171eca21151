#pragma once

#include <string>

namespace tern {

// A group of queued tasks that must run in order: the task that opens the group runs before
// the tasks that belong to it. Only the group's string is stored.
class QueueTaskGroup {
public:
    enum class Kind { identifiedProfile, registeredPushToken };

    // The tasks of one identified profile.
    static QueueTaskGroup identifiedProfile(std::string identifier);
    // The tasks of one registered device token.
    static QueueTaskGroup registeredPushToken(std::string token);

    Kind kind() const { return kind_; }
    // The profile identifier or the device token.
    const std::string& associatedValue() const { return value_; }

    // The stored form: "identified_profile_" + identifier, or "registered_push_token" + token
    // (with no separator: stored queues already hold strings of this shape).
    std::string string() const;
    // "identifiedProfile(\"abc\")", "registeredPushToken(\"token\")".
    std::string description() const;

    bool operator==(const QueueTaskGroup&) const = default;

private:
    QueueTaskGroup(Kind kind, std::string value) : kind_(kind), value_(std::move(value)) {}

    Kind kind_;
    std::string value_;
};

}  // namespace tern
