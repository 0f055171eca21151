#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/Notification.hpp"

namespace tern {

// The library pushes of this process whose content has not been handed to the system yet, so
// that when the system's time runs out each is handed the best content it has at once,
// whatever the queue and its requests are still doing (a tracking API that never answers must
// not cost the user the notification). The queued tasks are not touched: what the run has not
// sent stays stored for the next run.
class PendingPushDeliveries {
public:
    using ContentHandler = std::function<void(const vontu::platform::NotificationContent&)>;

    // One push's hand-over: the content handler is called once, with the best content then.
    class Delivery {
    public:
        Delivery(vontu::platform::NotificationContent content, ContentHandler handler)
            : content_(std::move(content)), handler_(std::move(handler)) {}

        // Content better than what there is (a rich push's composed content over the
        // original); nothing once delivered.
        void improve(const vontu::platform::NotificationContent& content);
        // Hands over the best content; only the first call does anything. Returns whether
        // this call did it.
        bool deliver();
        bool isDelivered();

    private:
        std::mutex mutex_;
        vontu::platform::NotificationContent content_;
        ContentHandler handler_;  // empty once called
    };

    // The process's registry, created on first use and never destroyed: completions of queue
    // runs and downloads may still arrive while the process exits.
    static PendingPushDeliveries& shared();

    // Registers a push that starts with its original content.
    std::shared_ptr<Delivery> add(const vontu::platform::NotificationContent& original,
                                  ContentHandler handler);
    // Hands every registered push its best content now. A push delivered since it was
    // registered is passed over.
    void deliverAll();

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<Delivery>> pending_;
};

}  // namespace tern
