// The queue's storage on real files: their exact contents, reading what other writers left,
// failed writes, expiry, and the queue shared by several processes (the app and its extensions)
// under the directory lock. Each child process is made with fork and works with a LinuxEnv of
// its own over the shared state root, as a separate extension process would.

#include "Common/queue/FileManagerQueueStorage.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/queue/QueueDirectoryLock.hpp"
#include "Common/storage/FileManagerFileStorage.hpp"
#include "platform/linux/LinuxEnv.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

namespace fs = std::filesystem;
using testing::RecordingLogger;
using vontu::platform::Date;
using vontu::platform::toBytes;
using Groups = std::optional<std::vector<QueueTaskGroup>>;

constexpr const char* siteId = "site1";

// A clock that stands still until the test moves it.
class FixedClock final : public DateUtil {
public:
    vontu::platform::Date now() const override { return {seconds_.load()}; }
    void set(double seconds) { seconds_.store(seconds); }

private:
    std::atomic<double> seconds_{1700000000.0};
};

// A queue storage over the real file storage of the current platform.
std::shared_ptr<FileManagerQueueStorage> makeQueueStorage(const SdkConfig& config,
                                                          std::shared_ptr<Logger> logger,
                                                          std::shared_ptr<DateUtil> clock) {
    return std::make_shared<FileManagerQueueStorage>(
        std::make_shared<FileManagerFileStorage>(siteId, logger),
        std::make_shared<JsonAdapter>(logger), siteId, config, logger, std::move(clock),
        std::make_shared<LockManager>());
}

// A file of the site's queue directory on the current platform.
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

class FileManagerQueueStorageTest : public ::testing::Test {
protected:
    std::shared_ptr<FileManagerQueueStorage> newStorage(double expiredSeconds = 100.0) {
        SdkConfig config;
        config.backgroundQueueExpiredSeconds = expiredSeconds;
        return makeQueueStorage(config, logger, clock);
    }
    CreateQueueStorageTaskResult create(const std::optional<QueueTaskGroup>& groupStart = {},
                                        const Groups& blockingGroups = {}) {
        return storage->create("trackEvent", toBytes("{}"), groupStart, blockingGroups);
    }
    std::size_t errorCount() const {
        return logger->messages(RecordingLogger::Level::error).size();
    }

    vontu::testing::TestEnv testEnv;
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<FixedClock> clock = std::make_shared<FixedClock>();
    std::shared_ptr<FileManagerQueueStorage> storage = newStorage();
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
    clock->set(1700000000.75);  // stored as whole seconds
    std::string expected = "[";
    for (const auto& [groupStart, blockingGroups, groupKeys] : cases) {
        SCOPED_TRACE(groupKeys);
        auto result = create(groupStart, blockingGroups);
        ASSERT_TRUE(result.success && result.createdTask);
        const std::string id = result.createdTask->taskPersistedId;
        EXPECT_TRUE(std::regex_match(id, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")));
        EXPECT_EQ(result.createdTask->createdAt, Date{1700000000.0});
        EXPECT_EQ(readText(taskFile(id)), R"({"data":"e30=","run_results":{"total_runs":0},)"
                                          R"("storage_id":")" + id + R"(","type":"trackEvent"})");
        expected += std::string(expected.size() > 1 ? "," : "") + R"({"created_at":1700000000,)" +
                    groupKeys + R"("task_persisted_id":")" + id + R"(","task_type":"trackEvent"})";
    }
    EXPECT_EQ(readText(queueFile("inventory.json")), expected + "]");
    EXPECT_EQ(create().queueStatus, (QueueStatus{siteId, 4}));
}

TEST_F(FileManagerQueueStorageTest, GetUpdateAndDeleteKnownAndUnknownTasks) {
    EXPECT_TRUE(storage->getInventory().empty());
    EXPECT_FALSE(storage->deleteTask("NOPE"));  // writes the empty inventory, finds no file
    EXPECT_EQ(readText(queueFile("inventory.json")), "[]");
    auto first = create();
    auto second = create();
    const std::string id = first.createdTask->taskPersistedId;
    EXPECT_EQ(storage->get(id), (QueueTask{id, "trackEvent", toBytes("{}"), {0}}));

    const std::string inventoryBefore = readText(queueFile("inventory.json"));
    ASSERT_TRUE(storage->update(id, QueueTaskRunResults{3}));
    EXPECT_EQ(storage->get(id)->runResults.totalRuns, 3);
    EXPECT_EQ(readText(queueFile("inventory.json")), inventoryBefore);
    EXPECT_FALSE(storage->update("NOPE", QueueTaskRunResults{1}));
    EXPECT_FALSE(fs::exists(taskFile("NOPE")));

    ASSERT_TRUE(storage->deleteTask(id));
    EXPECT_FALSE(fs::exists(taskFile(id)));
    EXPECT_EQ(storage->get(id), std::nullopt);
    EXPECT_EQ(storage->getInventory(), std::vector{*second.createdTask});

    // Another writer's inventory of the same length replaces what this storage last saw.
    const std::string saved = readText(queueFile("inventory.json"));
    std::string rewritten = saved;
    const auto idAt = rewritten.find(second.createdTask->taskPersistedId);
    ASSERT_NE(idAt, std::string::npos);
    rewritten[idAt] = rewritten[idAt] == 'f' ? 'e' : 'f';
    writeText(queueFile("inventory.json"), rewritten);
    ASSERT_EQ(storage->getInventory().size(), 1u);
    EXPECT_NE(storage->getInventory()[0].taskPersistedId, second.createdTask->taskPersistedId);
    writeText(queueFile("inventory.json"), saved);

    // A task file that cannot be read is absent, and an update leaves it as it is.
    const std::string secondId = second.createdTask->taskPersistedId;
    for (const std::string text : {"[]", R"({"data":"e30=","storage_id":"X","type":"t"})"}) {
        writeText(taskFile(secondId), text);
        EXPECT_EQ(storage->get(secondId), std::nullopt) << text;
        EXPECT_FALSE(storage->update(secondId, QueueTaskRunResults{1})) << text;
        EXPECT_EQ(readText(taskFile(secondId)), text);
    }
}

TEST_F(FileManagerQueueStorageTest, InventoryOfOtherWritersIsReadAndUnreadableOneReadsAsEmpty) {
    // Fractional dates, null group keys and unknown keys are all read.
    writeText(queueFile("inventory.json"),
              R"([{"created_at":12.5,"group_member":null,"group_start":null,"extra":true,)"
              R"("task_persisted_id":"A","task_type":"t"}])");
    EXPECT_EQ(storage->getInventory(),
              (std::vector{QueueTaskMetadata{"A", "t", std::nullopt, std::nullopt, Date{12.5}}}));
    EXPECT_EQ(errorCount(), 0u);

    for (const std::string text : {
             "not json", "{}", R"([{"task_type":"trackEvent","created_at":1}])",
             R"([{"task_persisted_id":"A","task_type":"t","created_at":1,"group_member":"x"}])"}) {
        SCOPED_TRACE(text);
        writeText(queueFile("inventory.json"), text);
        const auto errorsBefore = errorCount();
        EXPECT_TRUE(storage->getInventory().empty());
        EXPECT_EQ(errorCount(), errorsBefore + 1);
        auto result = create();  // starts the inventory afresh
        EXPECT_EQ(result.queueStatus.numTasksInQueue, 1);
        EXPECT_EQ(storage->getInventory(), std::vector{*result.createdTask});
    }
}

TEST_F(FileManagerQueueStorageTest, FailedWritesReportTheCountFromBefore) {
    ASSERT_TRUE(create().success);
    const std::string inventoryBefore = readText(queueFile("inventory.json"));

    // The task directory cannot be made: nothing is written at all.
    fs::rename(queueFile("tasks"), queueFile("tasks.saved"));
    writeText(queueFile("tasks"), "in the way");
    EXPECT_EQ(create(), (CreateQueueStorageTaskResult{false, QueueStatus{siteId, 1}, {}}));
    EXPECT_EQ(readText(queueFile("inventory.json")), inventoryBefore);
    fs::remove(queueFile("tasks"));
    fs::rename(queueFile("tasks.saved"), queueFile("tasks"));

    // The inventory cannot be replaced: the task file stays behind, unlisted.
    fs::rename(queueFile("inventory.json"), queueFile("inventory.saved"));
    fs::create_directory(queueFile("inventory.json"));
    EXPECT_EQ(create(), (CreateQueueStorageTaskResult{false, QueueStatus{siteId, 0}, {}}));
    EXPECT_EQ(std::distance(fs::directory_iterator(queueFile("tasks")), {}), 2);
}

TEST_F(FileManagerQueueStorageTest, ExpiredTasksAreDeletedButGroupOpenersStay) {
    const double now = 1700000000.0;  // expiry 100 s: the threshold is now - 100
    const auto group = QueueTaskGroup::identifiedProfile("u");
    auto createdAt = [&](double seconds, const std::optional<QueueTaskGroup>& groupStart = {},
                         const Groups& blockingGroups = {}) {
        clock->set(seconds);
        return *create(groupStart, blockingGroups).createdTask;
    };
    const auto older = createdAt(now - 101);
    const auto opener = createdAt(now - 5000, group);
    const auto member = createdAt(now - 5000, std::nullopt, std::vector{group});
    const auto atThreshold = createdAt(now - 100);
    const auto fresh = createdAt(now);
    clock->set(now);

    auto deleted = storage->deleteExpired();

    std::set<std::string> deletedIds;
    for (const auto& entry : deleted) deletedIds.insert(entry.taskPersistedId);
    EXPECT_EQ(deletedIds, (std::set{older.taskPersistedId, member.taskPersistedId}));
    EXPECT_EQ(storage->getInventory(), (std::vector{opener, atThreshold, fresh}));
    EXPECT_FALSE(fs::exists(taskFile(older.taskPersistedId)));
    EXPECT_FALSE(fs::exists(taskFile(member.taskPersistedId)));
    EXPECT_TRUE(fs::exists(taskFile(opener.taskPersistedId)));

    // The expiry counts in whole seconds, and one that names no span of time deletes nothing.
    clock->set(now + 0.5);
    EXPECT_TRUE(newStorage(101.0)->deleteExpired().empty());
    for (double unusable : {std::numeric_limits<double>::infinity(),
                            std::numeric_limits<double>::quiet_NaN(), 1e19, -1e19}) {
        const auto errorsBefore = errorCount();
        EXPECT_TRUE(newStorage(unusable)->deleteExpired().empty()) << unusable;
        EXPECT_EQ(errorCount(), errorsBefore + 1) << unusable;
    }
    // 100.9 counts as 100: the threshold is now - 99.5, after atThreshold's now - 100.
    EXPECT_EQ(newStorage(100.9)->deleteExpired(), std::vector{atThreshold});
}

// --- Processes sharing the queue

// A pipe whose ends are closed with the object.
class Pipe {
public:
    Pipe() { [[maybe_unused]] int result = ::pipe2(fds_, O_CLOEXEC); }
    ~Pipe() {
        closeEnd(0);
        closeEnd(1);
    }
    void closeEnd(int end) {
        if (fds_[end] >= 0) ::close(fds_[end]);
        fds_[end] = -1;
    }
    void writeByte() const { [[maybe_unused]] auto written = ::write(fds_[1], "x", 1); }
    // True once the other end writes a byte; false when it closes or after 60 s.
    bool readByte() const {
        pollfd poller{fds_[0], POLLIN, 0};
        char byte = 0;
        return ::poll(&poller, 1, 60'000) == 1 && ::read(fds_[0], &byte, 1) == 1;
    }

private:
    int fds_[2] = {-1, -1};
};

// A child process running body, whose result is its exit status. Killed and reaped with the
// object if still running.
class ForkedChild {
public:
    explicit ForkedChild(const std::function<int()>& body) : pid_(::fork()) {
        if (pid_ == 0) ::_exit(body());
        if (pid_ > 0) pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    }
    ~ForkedChild() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (pidfd_ >= 0) ::close(pidfd_);
    }
    void kill(int signal) const {
        if (pid_ > 0) ::kill(pid_, signal);
    }
    // The exit status (128 + signal for a killed child); absent if still running after 60 s.
    std::optional<int> waitForExit() {
        pollfd poller{pidfd_, POLLIN, 0};
        int status = 0;
        if (::poll(&poller, 1, 60'000) != 1 || ::waitpid(pid_, &status, 0) != pid_) return {};
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_;
    int pidfd_ = -1;
    bool reaped_ = false;
};

// One process's view of the shared queue: a platform of its own over the state root, installed
// as the Env while the object lives, and a storage on it.
struct QueueProcess {
    explicit QueueProcess(const fs::path& home) : env(settingsFor(home)) {
        vontu::platform::Env::setCurrent(&env);
        storage = makeQueueStorage(SdkConfig{}, logger, std::make_shared<FixedClock>());
    }
    ~QueueProcess() {
        storage.reset();
        vontu::platform::Env::setCurrent(previous);
    }
    static vontu::platform::linux_host::HostSettings settingsFor(const fs::path& home) {
        vontu::platform::linux_host::HostSettings settings;
        settings.home = home;
        return settings;
    }

    vontu::platform::Env* const previous = vontu::platform::Env::installed();
    vontu::platform::linux_host::LinuxEnv env;
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<FileManagerQueueStorage> storage;
};

// One writer creates its tasks while another is killed in the middle of its writes. Files are
// replaced whole, so nothing is lost or half-written, and the dead process's lock goes with it.
TEST(QueueStorageProcessesTest, ProcessesWritingAtOnceLoseNoEntryEvenWhenOneIsKilled) {
    vontu::testing::TempDir home;
    auto writeTasks = [&home](const std::string& type, int count, Pipe* progress) {
        if (progress != nullptr) progress->closeEnd(0);
        QueueProcess process(home.path());
        for (int i = 0; i < count; ++i) {
            if (!process.storage->create(type, toBytes("{}"), {}, {}).success) return 1;
            if (progress != nullptr) progress->writeByte();
        }
        return 0;
    };
    Pipe progress;
    ForkedChild killed([&] { return writeTasks("killed", 100000, &progress); });
    ForkedChild writer([&] { return writeTasks("writer", 50, nullptr); });
    progress.closeEnd(1);
    for (int i = 0; i < 25; ++i) ASSERT_TRUE(progress.readByte()) << i;
    killed.kill(SIGKILL);
    EXPECT_EQ(killed.waitForExit(), 128 + SIGKILL);
    EXPECT_EQ(writer.waitForExit(), 0);

    QueueProcess parent(home.path());
    auto inventory = parent.storage->getInventory();
    EXPECT_TRUE(parent.logger->lines().empty());
    std::set<std::string> ids;
    for (const auto& entry : inventory) {
        ids.insert(entry.taskPersistedId);
        auto task = parent.storage->get(entry.taskPersistedId);
        ASSERT_TRUE(task.has_value()) << entry.description();
        EXPECT_EQ(task->type, entry.taskType);
    }
    EXPECT_EQ(ids.size(), inventory.size());
    EXPECT_EQ(std::ranges::count(inventory, "writer", &QueueTaskMetadata::taskType), 50);
    EXPECT_GE(std::ranges::count(inventory, "killed", &QueueTaskMetadata::taskType), 25);
    auto result = parent.storage->create("after", toBytes("{}"), {}, {});
    EXPECT_EQ(result.queueStatus.numTasksInQueue, static_cast<std::int64_t>(inventory.size() + 1));
}

// True when a process other than this one can take the file lock right now.
bool lockableFromAnotherProcess(const fs::path& lockFile) {
    ForkedChild probe([&] {
        int fd = ::open(lockFile.c_str(), O_RDWR | O_CLOEXEC);
        return fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 1;
    });
    return probe.waitForExit() == 0;
}

TEST(QueueDirectoryLockTest, HeldFromTheOutermostTakeToTheOutermostRelease) {
    vontu::testing::TempDir home;
    QueueProcess process(home.path());
    QueueDirectoryLock lock(siteId, process.logger);
    QueueDirectoryLock sameDirectory(siteId, process.logger);
    const auto lockFile = lock.lockFilePath();
    ASSERT_EQ(lockFile, queueFile(".lock"));

    lock.lock();
    lock.lock();
    sameDirectory.lock();  // the same thread, through another object: no self-deadlock
    EXPECT_FALSE(lockableFromAnotherProcess(*lockFile));
    sameDirectory.unlock();
    lock.unlock();
    EXPECT_FALSE(lockableFromAnotherProcess(*lockFile));
    lock.unlock();
    EXPECT_TRUE(lockableFromAnotherProcess(*lockFile));
    EXPECT_TRUE(process.logger->lines().empty());
}

TEST(QueueDirectoryLockTest, UnopenableLockFileIsReportedOnceAndOperationsGoOn) {
    vontu::testing::TempDir home;
    QueueProcess process(home.path());
    fs::create_directories(queueFile(".lock"));  // a directory: no file
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(process.storage->create("t", toBytes("{}"), {}, {}).success);
    }
    EXPECT_EQ(process.storage->getInventory().size(), 3u);
    std::vector<std::string> lockErrors;  // the first create also reports the missing inventory
    for (const auto& error : process.logger->messages(RecordingLogger::Level::error)) {
        if (error.starts_with("queue directory lock unavailable")) lockErrors.push_back(error);
    }
    ASSERT_EQ(lockErrors.size(), 1u);
    EXPECT_TRUE(lockErrors[0].ends_with("Is a directory")) << lockErrors[0];
}

}  // namespace
}  // namespace tern
