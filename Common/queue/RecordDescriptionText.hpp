#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tern {

// Pieces of the "TypeName(field: value, ...)" descriptions that the queue records show in log
// lines, written the way the records' original platform prints its values.

// A string in double quotes with quotes, backslashes and control characters escaped:
// "a\"b" for a"b.
std::string quotedDescription(const std::string& text);

// ["a", "b"] for a list of strings; [] for an empty one.
std::string listDescription(const std::vector<std::string>& texts);

// Optional(inner) when a value is present, nil when it is absent.
std::string optionalDescription(const std::optional<std::string>& innerDescription);

}  // namespace tern
