#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "Common/queue/QueueTaskMetadata.hpp"

namespace tern {

// The queue's inventory as one read found it: its entries, oldest first. Copies share one
// list that nobody changes, so the inventory is handed around at no cost whatever its length
// (a queue run reads it once per task).
class QueueInventory {
public:
    using const_iterator = std::vector<QueueTaskMetadata>::const_iterator;

    QueueInventory() : QueueInventory(std::vector<QueueTaskMetadata>{}) {}
    // Implicit: a list of entries is an inventory.
    QueueInventory(std::vector<QueueTaskMetadata> entries)  // NOLINT(google-explicit-constructor)
        : entries_(std::make_shared<const std::vector<QueueTaskMetadata>>(std::move(entries))) {}
    // Shares a list that its owner no longer changes.
    explicit QueueInventory(std::shared_ptr<const std::vector<QueueTaskMetadata>> entries)
        : entries_(entries ? std::move(entries) : QueueInventory().entries_) {}

    const std::vector<QueueTaskMetadata>& entries() const { return *entries_; }
    std::size_t size() const { return entries_->size(); }
    bool empty() const { return entries_->empty(); }
    const QueueTaskMetadata& operator[](std::size_t index) const { return (*entries_)[index]; }
    const_iterator begin() const { return entries_->begin(); }
    const_iterator end() const { return entries_->end(); }

    friend bool operator==(const QueueInventory& a, const QueueInventory& b) {
        return a.entries_ == b.entries_ || *a.entries_ == *b.entries_;
    }

private:
    std::shared_ptr<const std::vector<QueueTaskMetadata>> entries_;
};

}  // namespace tern
