#pragma once

#include <optional>
#include <string>

#include "Common/storage/FileType.hpp"
#include "platform/AutoMockable.hpp"
#include "platform/Bytes.hpp"

namespace tern {

// The library's files on the device, addressed by kind and, for tasks, by file id.
class FileStorage : public vontu::AutoMockable {
public:
    // True when the contents were written.
    virtual bool save(FileType type, const vontu::platform::Bytes& contents,
                      const std::optional<std::string>& fileId) = 0;
    // The file's contents; absent when there is no such file or it cannot be read.
    virtual std::optional<vontu::platform::Bytes> get(
        FileType type, const std::optional<std::string>& fileId) = 0;
    // True when the file was removed. (Not named delete: C++ reserves that word.)
    virtual bool deleteFile(FileType type, const std::string& fileId) = 0;
};

}  // namespace tern
