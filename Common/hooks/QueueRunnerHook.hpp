#pragma once

#include <expected>
#include <functional>

#include "platform/AutoMockable.hpp"

namespace tern {

// The background queue's task record and the HTTP failure type are defined with the queue and
// the HTTP client; a hook only passes them on, so their names suffice here.
struct QueueTask;
class HttpRequestError;

// Lets a module run the background-queue tasks of the types it owns.
class QueueRunnerHook : public vontu::AutoMockable {
public:
    using Completion = std::function<void(std::expected<void, HttpRequestError>)>;

    // False when the task's type is not this module's. True when the hook takes the task; it
    // then calls onComplete once with the outcome.
    virtual bool runTask(const QueueTask& task, Completion onComplete) = 0;
};

}  // namespace tern
