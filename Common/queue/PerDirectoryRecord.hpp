#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <type_traits>

namespace tern {

// The one Record of a queue directory (named by a path in it) for the whole process, made on
// first use, from the path where Record takes one. Storage objects are built anew for many
// single operations; what they share per directory lives here. Never destroyed, so threads
// still running at exit find it in place. Each Record type has a registry of its own.
template <typename Record>
std::shared_ptr<Record> perDirectoryRecord(const std::filesystem::path& path) {
    static auto* mutex = new std::mutex;
    static auto* records = new std::map<std::filesystem::path, std::shared_ptr<Record>>;
    std::lock_guard guard(*mutex);
    auto& record = (*records)[path];
    if (record) return record;
    if constexpr (std::is_constructible_v<Record, const std::filesystem::path&>) {
        record = std::make_shared<Record>(path);
    } else {
        record = std::make_shared<Record>();
    }
    return record;
}

}  // namespace tern
