#pragma once

#include <expected>
#include <functional>

#include "Common/http/HttpRequestError.hpp"
#include "Common/queue/QueueTask.hpp"
#include "platform/AutoMockable.hpp"

namespace tern {

// Turns one stored task into one request to the tracking service.
class QueueRunner : public vontu::AutoMockable {
public:
    // Success, or the reason the task's request did not succeed.
    using Completion = std::function<void(std::expected<void, HttpRequestError>)>;

    // Starts the task's request and returns; onComplete follows, on whatever thread the
    // request ends.
    virtual void runTask(const QueueTask& task, Completion onComplete) = 0;
};

}  // namespace tern
