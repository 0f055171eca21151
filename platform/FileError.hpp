#pragma once

#include <string>

namespace vontu::platform {

// A failed file or directory operation, with a text fit for a log line.
struct FileError {
    std::string localizedDescription;
};

}  // namespace vontu::platform
