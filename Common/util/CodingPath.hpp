#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tern {

// One step from a JSON value to one of its parts: a member name or an array index.
struct CodingKey {
    std::string stringValue;
    std::optional<std::size_t> intValue;

    static CodingKey member(std::string name) { return CodingKey{std::move(name), std::nullopt}; }
    static CodingKey index(std::size_t position) {
        return CodingKey{std::to_string(position), position};
    }
    bool operator==(const CodingKey&) const = default;
};

// The steps from the document's root to the value being coded.
using CodingPath = std::vector<CodingKey>;

// The textual form used in log lines: member names joined by ".", indices in brackets, e.g.
// "tasks[2].storage_id"; the document's root itself is "(root)".
std::string describe(const CodingPath& path);

// path with one more step.
CodingPath appending(const CodingPath& path, CodingKey key);

}  // namespace tern
