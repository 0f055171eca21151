#pragma once

#include <expected>
#include <memory>
#include <optional>
#include <string>

#include "Common/storage/FileType.hpp"
#include "platform/AutoMockable.hpp"
#include "platform/Bytes.hpp"
#include "platform/Env.hpp"

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

    // For a file that one reader keeps decoded and that is rewritten often (the inventory):
    // get, with a pin of the file read; on failure the platform's error, which tells a file
    // that is not there from one that cannot be read.
    virtual std::expected<vontu::platform::PinnedContents, vontu::platform::FileError> getPinned(
        FileType type, const std::optional<std::string>& fileId) = 0;
    // True when the file is still the pinned one, unchanged as far as its stamp tells (see
    // vontu::platform::FileStamp).
    virtual bool isUnchanged(FileType type, const std::optional<std::string>& fileId,
                             const vontu::platform::FilePin& pin) = 0;
    // save, made for frequent rewrites (see Env::rewriteFile); a pin of the file written, or
    // null when it was not written.
    virtual std::shared_ptr<const vontu::platform::FilePin> rewrite(
        FileType type, const vontu::platform::Bytes& contents,
        const std::optional<std::string>& fileId) = 0;
};

}  // namespace tern
