#pragma once

#include <string_view>

namespace vontu::platform {

// The unified log's message types.
enum class LogType { debug, info, error, defaultType };

// The textual name of a log type as it appears in a log line: "debug", "info", "error",
// "default".
std::string_view logTypeName(LogType type);

}  // namespace vontu::platform
