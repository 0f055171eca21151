#pragma once

#include <filesystem>

namespace vontu::testing {

// A fresh directory under the system's temporary directory, removed with everything in it
// when the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace vontu::testing
