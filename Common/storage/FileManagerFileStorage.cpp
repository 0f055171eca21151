#include "Common/storage/FileManagerFileStorage.hpp"

#include <utility>

#include "Common/storage/StorageNames.hpp"
#include "platform/Env.hpp"

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
            if (!fileId) return std::nullopt;
            name = *fileId;
            break;
    }
    if (!name.ends_with(fileSuffix)) name += fileSuffix;
    return name;
}

}  // namespace

FileManagerFileStorage::FileManagerFileStorage(std::string siteId, std::shared_ptr<Logger> logger)
    : siteId_(std::move(siteId)), logger_(std::move(logger)) {}

std::optional<fs::path> FileManagerFileStorage::fileUrl(
    FileType type, const std::optional<std::string>& fileId) const {
    auto name = fileName(type, fileId);
    if (!name) return std::nullopt;

    Env& env = Env::current();
    auto base = env.applicationSupportDirectory();
    if (!base) return std::nullopt;

    fs::path directory = *base / libraryDirectoryName / siteId_ / "queue";
    if (type == FileType::queueTask) directory /= "tasks";
    if (!env.createDirectories(directory)) return std::nullopt;

    return directory / *name;
}

bool FileManagerFileStorage::save(FileType type, const Bytes& contents,
                                  const std::optional<std::string>& fileId) {
    auto url = fileUrl(type, fileId);
    if (!url) return false;
    auto written = Env::current().writeFile(*url, contents);
    if (!written) {
        logger_->error(written.error().localizedDescription);
        return false;
    }
    return true;
}

std::optional<Bytes> FileManagerFileStorage::get(FileType type,
                                                 const std::optional<std::string>& fileId) {
    auto url = fileUrl(type, fileId);
    if (!url) return std::nullopt;
    auto contents = Env::current().readFile(*url);
    if (!contents) {
        logger_->error(contents.error().localizedDescription);
        return std::nullopt;
    }
    return std::move(*contents);
}

bool FileManagerFileStorage::deleteFile(FileType type, const std::string& fileId) {
    auto url = fileUrl(type, fileId);
    if (!url) return false;
    auto removed = Env::current().removeItem(*url);
    if (!removed) {
        logger_->error(removed.error().localizedDescription);
        return false;
    }
    return true;
}

}  // namespace tern
