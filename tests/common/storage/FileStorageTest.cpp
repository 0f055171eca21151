#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "Common/storage/FileManagerFileStorage.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/common/ScopedCurrentEnv.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

namespace fs = std::filesystem;
using testing::RecordingLogger;
using vontu::platform::toBytes;

class FileStorageTest : public ::testing::Test {
protected:
    fs::path queueDirectory() const {
        return testEnv.home() / "apps" / "ios.vontu" / "support" / "dev.tern" / "site1" / "queue";
    }

    vontu::testing::TestEnv testEnv;
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    FileManagerFileStorage storage{"site1", logger};
};

TEST_F(FileStorageTest, FileUrlFollowsTheQueueLayout) {
    struct Case {
        FileType type;
        std::optional<std::string> fileId;
        std::optional<fs::path> expected;  // relative to the queue directory
    };
    const Case cases[] = {
        {FileType::queueInventory, std::nullopt, "inventory.json"},
        {FileType::queueInventory, "ignored", "inventory.json"},
        {FileType::queueTask, "abc", fs::path("tasks") / "abc.json"},
        {FileType::queueTask, "abc.json", fs::path("tasks") / "abc.json"},
        {FileType::queueTask, "abc.txt", fs::path("tasks") / "abc.txt.json"},
        {FileType::queueTask, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        auto url = storage.fileUrl(c.type, c.fileId);
        if (!c.expected) {
            EXPECT_EQ(url, std::nullopt);
            continue;
        }
        EXPECT_EQ(url, queueDirectory() / *c.expected) << c.fileId.value_or("(none)");
        EXPECT_TRUE(fs::is_directory(url->parent_path()));
    }
}

TEST_F(FileStorageTest, SaveGetAndDeleteATaskFile) {
    ASSERT_TRUE(storage.save(FileType::queueTask, toBytes("{\"a\":1}"), "abc"));
    EXPECT_TRUE(fs::is_regular_file(queueDirectory() / "tasks" / "abc.json"));
    EXPECT_EQ(storage.get(FileType::queueTask, "abc.json"), toBytes("{\"a\":1}"));

    ASSERT_TRUE(storage.save(FileType::queueInventory, toBytes("[]"), std::nullopt));
    EXPECT_EQ(storage.get(FileType::queueInventory, std::nullopt), toBytes("[]"));

    EXPECT_TRUE(storage.deleteFile(FileType::queueTask, "abc"));
    EXPECT_FALSE(fs::exists(queueDirectory() / "tasks" / "abc.json"));
    EXPECT_TRUE(logger->lines().empty());
}

TEST_F(FileStorageTest, TaskWithoutFileIdHasNoFileAndLogsNothing) {
    EXPECT_FALSE(storage.save(FileType::queueTask, toBytes("x"), std::nullopt));
    EXPECT_EQ(storage.get(FileType::queueTask, std::nullopt), std::nullopt);
    EXPECT_TRUE(logger->lines().empty());
}

TEST_F(FileStorageTest, MissingFileLogsOneErrorLine) {
    EXPECT_EQ(storage.get(FileType::queueTask, "missing"), std::nullopt);
    auto errors = logger->messages(RecordingLogger::Level::error);
    ASSERT_EQ(logger->lines().size(), 1u);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_FALSE(errors[0].empty());

    EXPECT_FALSE(storage.deleteFile(FileType::queueTask, "missing"));
    EXPECT_EQ(logger->messages(RecordingLogger::Level::error).size(), 2u);
}

TEST_F(FileStorageTest, FailedWriteLogsAndGivesFalse) {
    // A directory where the file should be makes the write fail for real.
    fs::create_directories(queueDirectory() / "tasks" / "blocked.json");
    EXPECT_FALSE(storage.save(FileType::queueTask, toBytes("x"), "blocked"));
    EXPECT_EQ(logger->messages(RecordingLogger::Level::error).size(), 1u);
}

class NoApplicationSupportEnv final : public vontu::platform::EnvWrapper {
public:
    using EnvWrapper::EnvWrapper;
    std::optional<fs::path> applicationSupportDirectory() override { return std::nullopt; }
};

class NoDirectoriesEnv final : public vontu::platform::EnvWrapper {
public:
    using EnvWrapper::EnvWrapper;
    std::expected<void, vontu::platform::FileError> createDirectories(const fs::path&) override {
        return std::unexpected(vontu::platform::FileError{"Could not create the directory"});
    }
};

TEST_F(FileStorageTest, DirectoryThatCannotBeFoundOrCreatedMeansNoFile) {
    NoApplicationSupportEnv noSupport(testEnv.env());
    NoDirectoriesEnv noDirectories(testEnv.env());
    for (vontu::platform::Env* failing :
         std::initializer_list<vontu::platform::Env*>{&noSupport, &noDirectories}) {
        testing::ScopedCurrentEnv installed(*failing, testEnv.env());
        EXPECT_FALSE(storage.save(FileType::queueInventory, toBytes("[]"), std::nullopt));
        EXPECT_EQ(storage.get(FileType::queueInventory, std::nullopt), std::nullopt);
        EXPECT_FALSE(storage.deleteFile(FileType::queueTask, "abc"));
    }
    EXPECT_TRUE(logger->lines().empty());
    EXPECT_FALSE(fs::exists(queueDirectory()));
}

}  // namespace
}  // namespace tern
