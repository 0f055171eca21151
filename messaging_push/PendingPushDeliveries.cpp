#include "messaging_push/PendingPushDeliveries.hpp"

#include <utility>

namespace tern {

void PendingPushDeliveries::Delivery::improve(
    const vontu::platform::NotificationContent& content) {
    std::lock_guard guard(mutex_);
    if (handler_) content_ = content;
}

bool PendingPushDeliveries::Delivery::deliver() {
    ContentHandler handler;
    vontu::platform::NotificationContent content;
    {
        std::lock_guard guard(mutex_);
        if (!handler_) return false;
        handler = std::exchange(handler_, nullptr);
        content = content_;
    }
    // Outside the lock: the handler may take its time, and a late improve() must not wait.
    handler(content);
    return true;
}

bool PendingPushDeliveries::Delivery::isDelivered() {
    std::lock_guard guard(mutex_);
    return !handler_;
}

PendingPushDeliveries& PendingPushDeliveries::shared() {
    static auto* deliveries = new PendingPushDeliveries;
    return *deliveries;
}

std::shared_ptr<PendingPushDeliveries::Delivery> PendingPushDeliveries::add(
    const vontu::platform::NotificationContent& original, ContentHandler handler) {
    auto delivery = std::make_shared<Delivery>(original, std::move(handler));
    std::lock_guard guard(mutex_);
    // Pushes delivered after their queue runs are dropped here, so that the list holds only
    // the few still waiting.
    std::erase_if(pending_, [](const auto& each) { return each->isDelivered(); });
    pending_.push_back(delivery);
    return delivery;
}

void PendingPushDeliveries::deliverAll() {
    std::vector<std::shared_ptr<Delivery>> waiting;
    {
        std::lock_guard guard(mutex_);
        waiting.swap(pending_);
    }
    for (const auto& delivery : waiting) delivery->deliver();
}

}  // namespace tern
