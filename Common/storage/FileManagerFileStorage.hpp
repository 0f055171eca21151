#pragma once

#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Common/storage/FileStorage.hpp"
#include "Common/util/Logger.hpp"

namespace tern {

// FileStorage in the app's application-support directory:
//   <application support>/dev.tern/<site id>/queue/inventory.json
//   <application support>/dev.tern/<site id>/queue/tasks/<file id>.json
// Directories are created as needed. A failed read, write or removal is logged as an error with
// the platform's description of the failure.
class FileManagerFileStorage final : public FileStorage {
public:
    FileManagerFileStorage(std::string siteId, std::shared_ptr<Logger> logger);

    bool save(FileType type, const vontu::platform::Bytes& contents,
              const std::optional<std::string>& fileId) override;
    std::optional<vontu::platform::Bytes> get(FileType type,
                                              const std::optional<std::string>& fileId) override;
    bool deleteFile(FileType type, const std::string& fileId) override;
    std::expected<vontu::platform::PinnedContents, vontu::platform::FileError> getPinned(
        FileType type, const std::optional<std::string>& fileId) override;
    bool isUnchanged(FileType type, const std::optional<std::string>& fileId,
                     const vontu::platform::FilePin& pin) override;
    std::shared_ptr<const vontu::platform::FilePin> rewrite(
        FileType type, const vontu::platform::Bytes& contents,
        const std::optional<std::string>& fileId) override;

    // Where the file of (type, fileId) lives, its directory created. Absent for a task without
    // a file id, or when the directory cannot be found or created.
    std::optional<std::filesystem::path> fileUrl(FileType type,
                                                 const std::optional<std::string>& fileId) const;

private:
    // Where the file of (type, fileId) lives, without creating anything: for reads, which
    // find nothing where there is no directory.
    std::optional<std::filesystem::path> filePath(FileType type,
                                                  const std::optional<std::string>& fileId) const;
    // Logs a failed operation's description; false.
    bool reportFailure(const vontu::platform::FileError& error) const;
    // What a read of the platform gave; absent when it failed, which is logged.
    template <class Contents>
    std::optional<Contents> logged(
        std::expected<Contents, vontu::platform::FileError> read) const {
        if (read) return std::move(*read);
        reportFailure(read.error());
        return std::nullopt;
    }

    std::string siteId_;
    std::shared_ptr<Logger> logger_;
};

}  // namespace tern
