#pragma once

#include <string_view>

namespace vontu::platform {

// Whether name stays one entry of the directory it is joined to: not empty, not "." or "..",
// no "/" (which would reach into or out of other directories) and no NUL (which cuts a path
// short where the system reads it). For names that come from input or from files that anybody
// may have written.
inline bool isSingleFileName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

}  // namespace vontu::platform
