// The queue's storage on real files, and the queue shared by several processes (the app and its
// extensions) under the directory lock; child processes are made with fork.

#include "Common/queue/FileManagerQueueStorage.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/storage/FileManagerFileStorage.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/common/ScopedCurrentEnv.hpp"
#include "platform/EnvWrapper.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

namespace fs = std::filesystem;
using testing::RecordingLogger;
using testing::ScopedCurrentEnv;
using vontu::platform::Bytes;
using vontu::platform::Date;
using vontu::platform::toBytes;
using Groups = std::optional<std::vector<QueueTaskGroup>>;

constexpr const char* siteId = "site1";

struct FixedClock final : DateUtil {
    Date now() const override { return {seconds}; }
    double seconds = 1700000000.0;
};

std::shared_ptr<FileManagerQueueStorage> makeQueueStorage(std::shared_ptr<Logger> logger,
                                                          std::shared_ptr<DateUtil> clock,
                                                          double expiredSeconds = 100.0,
                                                          std::shared_ptr<FileStorage> files = nullptr) {
    SdkConfig config;
    config.backgroundQueueExpiredSeconds = expiredSeconds;
    if (!files) files = std::make_shared<FileManagerFileStorage>(siteId, logger);
    return std::make_shared<FileManagerQueueStorage>(std::move(files), std::make_shared<JsonAdapter>(logger),
                                                     siteId, config, logger, std::move(clock),
                                                     std::make_shared<LockManager>());
}

fs::path queueFile(const std::string& name) {
    return *vontu::platform::Env::current().applicationSupportDirectory() / "dev.tern" / siteId /
           "queue" / name;
}
fs::path taskFile(const std::string& id) { return queueFile("tasks/" + id + ".json"); }

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
void writeText(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Runs body in a child process, with a platform of its own over the state root at home; the
// child is killed after 60 s at the latest.
pid_t forkChild(const fs::path& home, const std::function<int()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(60);
        vontu::platform::linux_host::LinuxEnv env(
            {.home = home, .network = {}, .openUrl = {}, .continueUserActivity = {}});
        vontu::platform::Env::setCurrent(&env);
        ::_exit(body());
    }
    return pid;
}
// The exit status of a child, 128 + signal for a killed one.
int waitForExit(pid_t child) {
    int status = 0;
    if (child <= 0 || ::waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class FileManagerQueueStorageTest : public ::testing::Test {
protected:
    CreateQueueStorageTaskResult create(const std::optional<QueueTaskGroup>& groupStart = {},
                                        const Groups& blockingGroups = {}) {
        return storage->create("trackEvent", toBytes("{}"), groupStart, blockingGroups);
    }

    vontu::testing::TestEnv testEnv;
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<FixedClock> clock = std::make_shared<FixedClock>();
    std::shared_ptr<FileManagerQueueStorage> storage = makeQueueStorage(logger, clock);
};

TEST_F(FileManagerQueueStorageTest, CreateWritesTaskFileAndInventoryEntryByteForByte) {
    const std::tuple<std::optional<QueueTaskGroup>, Groups, std::string> cases[] = {
        // group start, blocking groups, what the entry holds between "created_at" and the id
        {QueueTaskGroup::identifiedProfile("u1"),
         std::vector{QueueTaskGroup::registeredPushToken("t"),
                     QueueTaskGroup::identifiedProfile("a")},
         R"("group_member":["registered_push_tokent","identified_profile_a"],)"
         R"("group_start":"identified_profile_u1",)"},
        {std::nullopt, std::nullopt, ""},
        {std::nullopt, std::vector<QueueTaskGroup>{}, R"("group_member":[],)"},
    };
    clock->seconds = 1700000000.75;  // stored as whole seconds
    std::string expected = "[";
    for (const auto& [groupStart, blockingGroups, groupKeys] : cases) {
        auto result = create(groupStart, blockingGroups);
        ASSERT_TRUE(result.success && result.createdTask) << groupKeys;
        const std::string id = result.createdTask->taskPersistedId;
        EXPECT_EQ(readText(taskFile(id)), R"({"data":"e30=","run_results":{"total_runs":0},)"
                                          R"("storage_id":")" + id + R"(","type":"trackEvent"})");
        expected += std::string(expected.size() > 1 ? "," : "") + R"({"created_at":1700000000,)" +
                    groupKeys + R"("task_persisted_id":")" + id + R"(","task_type":"trackEvent"})";
    }
    EXPECT_EQ(readText(queueFile("inventory.json")), expected + "]");
    EXPECT_EQ(create().queueStatus, (QueueStatus{siteId, 4}));
}

TEST_F(FileManagerQueueStorageTest, GetUpdateAndDeleteKnownAndUnknownTasks) {
    const std::string id = create().createdTask->taskPersistedId;
    const auto second = *create().createdTask;
    EXPECT_EQ(storage->get(id), (QueueTask{id, "trackEvent", toBytes("{}"), {0}}));
    ASSERT_TRUE(storage->update(id, QueueTaskRunResults{3}));
    EXPECT_EQ(storage->get(id)->runResults.totalRuns, 3);
    EXPECT_FALSE(storage->update("NOPE", QueueTaskRunResults{1}));
    ASSERT_TRUE(storage->deleteTask(id));
    EXPECT_FALSE(fs::exists(taskFile(id)));
    EXPECT_EQ(storage->getInventory(), std::vector{second});

    // Another writer that replaces the file whole, as the platform writes files, with an
    // inventory of the same length: what this storage last saw is not used.
    std::string rewritten = readText(queueFile("inventory.json"));
    const auto idAt = rewritten.find(second.taskPersistedId);
    ASSERT_NE(idAt, std::string::npos);
    rewritten[idAt] = rewritten[idAt] == 'F' ? 'E' : 'F';
    ASSERT_TRUE(vontu::platform::Env::current().writeFile(queueFile("inventory.json"),
                                                          toBytes(rewritten)));
    ASSERT_EQ(storage->getInventory().size(), 1u);
    EXPECT_NE(storage->getInventory()[0].taskPersistedId, second.taskPersistedId);

    // A task file that cannot be read is absent, and an update leaves it as it is.
    const std::string unreadable = R"({"data":"e30=","storage_id":"X","type":"t"})";
    writeText(taskFile(id), unreadable);
    EXPECT_EQ(storage->get(id), std::nullopt);
    EXPECT_FALSE(storage->update(id, QueueTaskRunResults{1}));
    EXPECT_EQ(readText(taskFile(id)), unreadable);
}

// Ids come from files anybody may have written. One that is no single file name touches no
// file (a lone NUL named the tasks directory, which was then removed whole), and a task file
// whose storage_id names another task is updated under its own name.
TEST_F(FileManagerQueueStorageTest, IdsThatAreNoFileNameTouchNothingAndUpdatesKeepTheirFile) {
    const auto kept = *create().createdTask;
    for (const std::string& id : {std::string(1, '\0'), std::string("../../../x\0", 11),
                                 std::string(".."), std::string("a/b")}) {
        EXPECT_FALSE(storage->get(id));
        EXPECT_FALSE(storage->update(id, QueueTaskRunResults{1}));
        EXPECT_FALSE(storage->deleteTask(id));
    }
    EXPECT_TRUE(fs::exists(taskFile(kept.taskPersistedId)));
    EXPECT_EQ(storage->getInventory(), std::vector{kept});

    const std::string keptBefore = readText(taskFile(kept.taskPersistedId));
    writeText(taskFile("A"), R"({"data":"e30=","run_results":{"total_runs":0},"storage_id":")" +
                                 kept.taskPersistedId + R"(","type":"t"})");
    ASSERT_TRUE(storage->update("A", QueueTaskRunResults{5}));
    EXPECT_EQ(readText(taskFile(kept.taskPersistedId)), keptBefore);
    EXPECT_EQ(storage->get("A")->runResults.totalRuns, 5);
}

TEST_F(FileManagerQueueStorageTest, InventoryOfOtherWritersIsReadAndUnreadableOneReadsAsEmpty) {
    // Fractional dates, null group keys and unknown keys are all read.
    writeText(queueFile("inventory.json"),
              R"([{"created_at":12.5,"group_member":null,"group_start":null,"extra":true,)"
              R"("task_persisted_id":"A","task_type":"t"}])");
    EXPECT_EQ(storage->getInventory(),
              (std::vector{QueueTaskMetadata{"A", "t", std::nullopt, std::nullopt, Date{12.5}}}));
    EXPECT_TRUE(logger->lines().empty());
    for (const std::string text : {"not json", R"([{"task_type":"trackEvent","created_at":1}])"}) {
        writeText(queueFile("inventory.json"), text);
        EXPECT_TRUE(storage->getInventory().empty()) << text;
        auto result = create();  // starts the inventory afresh
        EXPECT_EQ(storage->getInventory(), std::vector{*result.createdTask}) << text;
    }
}

TEST_F(FileManagerQueueStorageTest, FailedWritesReportTheCountFromBefore) {
    // The task directory cannot be made: nothing is written at all.
    writeText(queueFile("tasks"), "in the way");
    EXPECT_EQ(create(), (CreateQueueStorageTaskResult{false, QueueStatus{siteId, 0}, {}}));
    EXPECT_FALSE(fs::exists(queueFile("inventory.json")));
    fs::remove(queueFile("tasks"));

    // An inventory that is there but cannot be read (a directory in its place) is not replaced,
    // and no task file is written for an entry that cannot be listed.
    ASSERT_TRUE(create().success);
    fs::remove(queueFile("inventory.json"));
    fs::create_directory(queueFile("inventory.json"));
    EXPECT_EQ(create(), (CreateQueueStorageTaskResult{false, QueueStatus{siteId, 0}, {}}));
    EXPECT_TRUE(fs::is_directory(queueFile("inventory.json")));
    EXPECT_EQ(std::distance(fs::directory_iterator(queueFile("tasks")), {}), 1);
    EXPECT_FALSE(storage->deleteTask("any"));  // which would replace it too
}

// The inventory is kept to what an extension can read within its memory: a full queue refuses
// new tasks, with a log line, until one has gone.
TEST_F(FileManagerQueueStorageTest, AFullQueueRefusesNewTasksUntilOneHasGone) {
    std::string entries = "[";
    for (int i = 0; i < FileManagerQueueStorage::maxQueuedTasks; ++i) {
        if (i > 0) entries += ",";
        entries += R"({"created_at":1,"task_persisted_id":"T)" + std::to_string(i) +
                   R"(","task_type":"trackEvent"})";
    }
    writeText(queueFile("inventory.json"), entries + "]");
    const QueueStatus full{siteId, FileManagerQueueStorage::maxQueuedTasks};
    EXPECT_EQ(create(), (CreateQueueStorageTaskResult{false, full, {}}));
    EXPECT_EQ(logger->messages(RecordingLogger::Level::error),
              std::vector<std::string>{"fail adding queue task trackEvent, the queue is full with " +
                                       std::to_string(full.numTasksInQueue) + " tasks."});
    storage->deleteTask("T0");  // the entry goes; it has no file to remove
    EXPECT_TRUE(create().success);
}

TEST_F(FileManagerQueueStorageTest, ExpiredTasksAreDeletedButGroupOpenersStay) {
    const double now = 1700000000.0;  // expiry 100 s: the threshold is now - 100
    const auto group = QueueTaskGroup::identifiedProfile("u");
    auto createdAt = [&](double seconds, const std::optional<QueueTaskGroup>& groupStart = {},
                         const Groups& blockingGroups = {}) {
        clock->seconds = seconds;
        return *create(groupStart, blockingGroups).createdTask;
    };
    const auto older = createdAt(now - 101);
    const auto opener = createdAt(now - 5000, group);
    const auto member = createdAt(now - 5000, std::nullopt, std::vector{group});
    const auto atThreshold = createdAt(now - 100);
    clock->seconds = now;
    // An expiry that names no span of time deletes nothing.
    EXPECT_TRUE(makeQueueStorage(logger, clock, std::nan(""))->deleteExpired().empty());
    EXPECT_THAT(storage->deleteExpired(), ::testing::UnorderedElementsAre(older, member));
    EXPECT_EQ(storage->getInventory(), (std::vector{opener, atThreshold}));
}

// This process creates its tasks while a child, with a platform of its own over the same state
// root, is killed in the middle of its writes after reporting 25 of them through a pipe. Files
// are replaced whole, so nothing is lost or half-written, and the dead process's lock goes too.
TEST_F(FileManagerQueueStorageTest, ProcessesWritingAtOnceLoseNoEntryEvenWhenOneIsKilled) {
    int progress[2];
    ASSERT_EQ(::pipe2(progress, O_CLOEXEC), 0);
    const pid_t killed = forkChild(testEnv.home(), [&] {
        auto child = makeQueueStorage(std::make_shared<RecordingLogger>(), clock);
        while (child->create("killed", toBytes("{}"), {}, {}).success &&
               ::write(progress[1], "x", 1) == 1) {
        }
        return 1;
    });
    ::close(progress[1]);
    for (int i = 0; i < 50; ++i) EXPECT_TRUE(create().success);
    char byte;
    int reported = 0;
    while (reported < 25 && ::read(progress[0], &byte, 1) == 1) ++reported;
    if (killed > 0) ::kill(killed, SIGKILL);
    EXPECT_EQ(waitForExit(killed), 128 + SIGKILL);
    ::close(progress[0]);
    ASSERT_EQ(reported, 25);

    auto readerLogger = std::make_shared<RecordingLogger>();
    auto reader = makeQueueStorage(readerLogger, clock);
    auto inventory = reader->getInventory();
    for (const auto& entry : inventory) {  // each entry has its task, whole
        EXPECT_EQ(reader->get(entry.taskPersistedId).value_or(QueueTask{}).type, entry.taskType);
    }
    EXPECT_TRUE(readerLogger->lines().empty());
    EXPECT_EQ(std::ranges::count(inventory, "trackEvent", &QueueTaskMetadata::taskType), 50);
    EXPECT_GE(std::ranges::count(inventory, "killed", &QueueTaskMetadata::taskType), 25);
    auto result = reader->create("after", toBytes("{}"), {}, {});
    EXPECT_EQ(result.queueStatus.numTasksInQueue, static_cast<std::int64_t>(inventory.size() + 1));
}

// File storage whose stamps never tell a change: as when another process rewrites the very file
// this one last saw, to the same length, within one tick of the file clock.
class StampBlindFileStorage final : public FileStorage {
public:
    explicit StampBlindFileStorage(std::shared_ptr<Logger> logger) : files_(siteId, logger) {}
    bool save(FileType t, const Bytes& c, const std::optional<std::string>& id) override {
        return files_.save(t, c, id);
    }
    std::optional<Bytes> get(FileType t, const std::optional<std::string>& id) override {
        return files_.get(t, id);
    }
    bool deleteFile(FileType t, const std::string& id) override { return files_.deleteFile(t, id); }
    std::expected<vontu::platform::PinnedContents, vontu::platform::FileError> getPinned(
        FileType t, const std::optional<std::string>& id) override {
        return files_.getPinned(t, id);
    }
    bool isUnchanged(FileType, const std::optional<std::string>&,
                     const vontu::platform::FilePin&) override {
        return true;
    }
    std::shared_ptr<const vontu::platform::FilePin> rewrite(
        FileType t, const Bytes& c, const std::optional<std::string>& id) override {
        return files_.rewrite(t, c, id);
    }

private:
    FileManagerFileStorage files_;
};

// What this process remembers of the inventory goes stale when another process changes it;
// the change count of the directory lock tells it so even where the file's stamp cannot.
TEST_F(FileManagerQueueStorageTest, ChangesOfAnotherProcessAreSeenWhereTheStampCannotTell) {
    auto blind = makeQueueStorage(logger, clock, 100.0, std::make_shared<StampBlindFileStorage>(logger));
    const auto kept = *create().createdTask;
    const auto gone = *create().createdTask;
    ASSERT_EQ(blind->getInventory(), (std::vector{kept, gone}));
    const pid_t child = forkChild(testEnv.home(), [&] {
        auto other = makeQueueStorage(std::make_shared<RecordingLogger>(), clock);
        const bool changed = other->deleteTask(gone.taskPersistedId) &&
                             other->create("trackEvent", toBytes("{}"), {}, {}).success;
        return changed ? 0 : 1;
    });
    ASSERT_EQ(waitForExit(child), 0);
    const auto inventory = blind->getInventory();
    ASSERT_EQ(inventory.size(), 2u);
    EXPECT_EQ(inventory[0], kept);
    EXPECT_NE(inventory[1].taskPersistedId, gone.taskPersistedId);
    // Within the process every storage object shares what is known, with no read at all.
    EXPECT_EQ(storage->getInventory(), inventory);
}

TEST_F(FileManagerQueueStorageTest, UnopenableLockFileIsReportedOnceAndOperationsGoOn) {
    fs::create_directories(queueFile(".lock"));  // a directory: no file
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(create().success);
    EXPECT_EQ(storage->getInventory().size(), 3u);
    const auto errors = logger->messages(RecordingLogger::Level::error);
    auto lockError = [](const std::string& e) { return e.starts_with("queue directory lock"); };
    ASSERT_EQ(std::ranges::count_if(errors, lockError), 1);
    EXPECT_TRUE(std::ranges::find_if(errors, lockError)->ends_with(": Is a directory"));
}

// The lock goes through the platform, so an environment can fail it: the storage reports that
// once and goes on under its in-process lock.
TEST_F(FileManagerQueueStorageTest, ALockThePlatformFailsIsReportedOnceAndOperationsGoOn) {
    struct FailingLock final : vontu::platform::FileLock {
        std::expected<void, vontu::platform::FileError> lock() override {
            return std::unexpected(vontu::platform::FileError{"no locks today"});
        }
        std::expected<bool, vontu::platform::FileError> tryLock() override { return false; }
        void unlock() override {}
        std::optional<std::uint64_t> readCounter() override { return std::nullopt; }
        bool writeCounter(std::uint64_t) override { return false; }
    };
    struct NoLocksEnv final : vontu::platform::EnvWrapper {
        using EnvWrapper::EnvWrapper;
        std::unique_ptr<vontu::platform::FileLock> newFileLock(const fs::path&) override {
            return std::make_unique<FailingLock>();
        }
    } noLocks(vontu::platform::Env::current());
    ScopedCurrentEnv scoped(noLocks, noLocks.target());
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(create().success);
    EXPECT_EQ(storage->getInventory().size(), 2u);
    const auto errors = logger->messages(RecordingLogger::Level::error);
    EXPECT_EQ(std::ranges::count(errors, "queue directory lock unavailable, other processes are "
                                         "not kept out of the queue: no locks today"),
              1);
}

}  // namespace
}  // namespace tern
