#include "Common/storage/FileManagerFileStorage.hpp"

#include <utility>

#include "Common/storage/StorageNames.hpp"
#include "platform/Env.hpp"
#include "platform/FileName.hpp"

namespace tern {

namespace fs = std::filesystem;
using vontu::platform::Bytes;
using vontu::platform::Env;

namespace {

constexpr std::string_view fileSuffix = ".json";

std::optional<std::string> fileName(FileType type, const std::optional<std::string>& fileId) {
    std::string name;
    switch (type) {
        case FileType::queueInventory: name = "inventory.json"; break;
        case FileType::queueTask:
            // Ids come from files that anybody may have written: a task id of NUL alone, say,
            // would name the tasks directory itself.
            if (!fileId || !vontu::platform::isSingleFileName(*fileId)) return std::nullopt;
            name = *fileId;
            break;
    }
    if (!name.ends_with(fileSuffix)) name += fileSuffix;
    return name;
}

}  // namespace

FileManagerFileStorage::FileManagerFileStorage(std::string siteId, std::shared_ptr<Logger> logger)
    : siteId_(std::move(siteId)), logger_(std::move(logger)) {}

std::optional<fs::path> FileManagerFileStorage::filePath(
    FileType type, const std::optional<std::string>& fileId) const {
    auto name = fileName(type, fileId);
    if (!name || !vontu::platform::isSingleFileName(siteId_)) return std::nullopt;
    auto base = Env::current().applicationSupportDirectory();
    if (!base) return std::nullopt;
    // Joined as text: every file operation of the queue comes here.
    std::string path = base->native();
    path.append("/").append(libraryDirectoryName).append("/").append(siteId_).append("/queue/");
    if (type == FileType::queueTask) path.append("tasks/");
    return fs::path(std::move(path.append(*name)));
}

std::optional<fs::path> FileManagerFileStorage::fileUrl(
    FileType type, const std::optional<std::string>& fileId) const {
    auto path = filePath(type, fileId);
    if (!path || !Env::current().createDirectories(path->parent_path())) return std::nullopt;
    return path;
}

bool FileManagerFileStorage::reportFailure(const vontu::platform::FileError& error) const {
    logger_->error(error.localizedDescription);
    return false;
}

bool FileManagerFileStorage::save(FileType type, const Bytes& contents,
                                  const std::optional<std::string>& fileId) {
    auto url = fileUrl(type, fileId);
    if (!url) return false;
    auto written = Env::current().writeFile(*url, contents);
    return written ? true : reportFailure(written.error());
}

std::optional<Bytes> FileManagerFileStorage::get(FileType type,
                                                 const std::optional<std::string>& fileId) {
    auto path = filePath(type, fileId);
    if (!path) return std::nullopt;
    return logged(Env::current().readFile(*path));
}

bool FileManagerFileStorage::deleteFile(FileType type, const std::string& fileId) {
    auto path = filePath(type, fileId);
    if (!path) return false;
    auto removed = Env::current().removeItem(*path);
    return removed ? true : reportFailure(removed.error());
}

std::expected<vontu::platform::PinnedContents, vontu::platform::FileError>
FileManagerFileStorage::getPinned(FileType type, const std::optional<std::string>& fileId) {
    auto path = filePath(type, fileId);
    // No place for the library's files: nothing was ever written there.
    if (!path) return std::unexpected(vontu::platform::FileError{"no file path", true});
    auto read = Env::current().readFileAndPin(*path);
    // A file not written yet is no failure: the caller starts from nothing.
    if (!read && !read.error().nothingThere) reportFailure(read.error());
    return read;
}

bool FileManagerFileStorage::isUnchanged(FileType type, const std::optional<std::string>& fileId,
                                         const vontu::platform::FilePin& pin) {
    auto path = filePath(type, fileId);
    if (!path) return false;
    return Env::current().fileStamp(*path) == pin.stamp();
}

std::shared_ptr<const vontu::platform::FilePin> FileManagerFileStorage::rewrite(
    FileType type, const Bytes& contents, const std::optional<std::string>& fileId) {
    auto url = fileUrl(type, fileId);
    if (!url) return nullptr;
    auto written = Env::current().rewriteFile(*url, contents);
    if (!written) {
        reportFailure(written.error());
        return nullptr;
    }
    return std::move(*written);
}

}  // namespace tern
