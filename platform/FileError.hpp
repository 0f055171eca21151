#pragma once

#include <string>

namespace vontu::platform {

// A failed file or directory operation, with a text fit for a log line.
struct FileError {
    std::string localizedDescription;
    // True when the operation failed because nothing is at the path (nor at a directory on the
    // way to it), as opposed to something there that cannot be used: a reader can then tell a
    // file that was never written from one it may not read, which it must not take as empty.
    bool nothingThere = false;
};

}  // namespace vontu::platform
