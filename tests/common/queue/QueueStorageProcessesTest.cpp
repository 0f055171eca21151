// The queue shared by several processes on the same files: the app and its extensions.
//
// Each child is made with fork while the test process has no other thread, and works with a
// LinuxEnv of its own over the shared state root, as a separate extension process would.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/queue/FileManagerQueueStorage.hpp"
#include "Common/queue/QueueDirectoryLock.hpp"
#include "platform/linux/LinuxEnv.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/common/queue/QueueTestSupport.hpp"
#include "tests/support/TempDir.hpp"

namespace tern {
namespace {

namespace fs = std::filesystem;
using testing::FixedClock;
using testing::RecordingLogger;
using vontu::platform::Env;
using vontu::platform::toBytes;
using vontu::platform::linux_host::HostSettings;
using vontu::platform::linux_host::LinuxEnv;
using namespace std::chrono_literals;

constexpr const char* siteId = "site1";

// A pipe whose ends are closed with the object.
class Pipe {
public:
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) == 0) {
            read_ = fds[0];
            write_ = fds[1];
        }
    }
    ~Pipe() {
        closeRead();
        closeWrite();
    }
    void closeRead() { closeFd(read_); }
    void closeWrite() { closeFd(write_); }

    void writeByte() const {
        char byte = 1;
        [[maybe_unused]] auto written = ::write(write_, &byte, 1);
    }
    // Blocks until the other end writes a byte (true) or closes (false).
    bool readByte() const {
        char byte = 0;
        while (true) {
            auto n = ::read(read_, &byte, 1);
            if (n < 0 && errno == EINTR) continue;
            return n == 1;
        }
    }
    // Waits up to deadline for a byte; false on timeout or end of file.
    bool readByteWithin(std::chrono::milliseconds deadline) const {
        pollfd poller{read_, POLLIN, 0};
        if (::poll(&poller, 1, static_cast<int>(deadline.count())) != 1) return false;
        return readByte();
    }

private:
    static void closeFd(int& fd) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    int read_ = -1;
    int write_ = -1;
};

// A child process running body; its exit status is body's result. Killed and reaped with the
// object if still running.
class ForkedChild {
public:
    explicit ForkedChild(const std::function<int()>& body) {
        pid_ = ::fork();
        if (pid_ == 0) ::_exit(body());
        if (pid_ > 0) pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    }
    ~ForkedChild() {
        if (!reaped_ && pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (pidfd_ >= 0) ::close(pidfd_);
    }
    ForkedChild(const ForkedChild&) = delete;
    ForkedChild& operator=(const ForkedChild&) = delete;

    bool started() const { return pid_ > 0 && pidfd_ >= 0; }
    void kill(int signal) const { ::kill(pid_, signal); }

    // The exit status (128 + signal for a killed child); absent if it is still running after
    // the deadline.
    std::optional<int> waitForExit(std::chrono::milliseconds deadline = 60s) {
        pollfd poller{pidfd_, POLLIN, 0};
        if (::poll(&poller, 1, static_cast<int>(deadline.count())) != 1) return std::nullopt;
        int status = 0;
        if (::waitpid(pid_, &status, 0) != pid_) return std::nullopt;
        reaped_ = true;
        if (WIFEXITED(status)) return WEXITSTATUS(status);
        return 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int pidfd_ = -1;
    bool reaped_ = false;
};

HostSettings settingsFor(const fs::path& home) {
    HostSettings settings;
    settings.home = home;
    return settings;
}

// One process's view of the shared queue: a platform of its own over the state root and a
// storage on it.
struct QueueProcess {
    explicit QueueProcess(const fs::path& home) : env(settingsFor(home)) {
        Env::setCurrent(&env);
        storage =
            testing::makeQueueStorage(siteId, SdkConfig{}, logger, std::make_shared<FixedClock>(),
                                      std::make_shared<LockManager>());
    }
    ~QueueProcess() {
        storage.reset();
        Env::setCurrent(nullptr);
    }

    LinuxEnv env;
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<FileManagerQueueStorage> storage;
};

// Every inventory entry must lead to a readable task file.
void expectEveryEntryHasItsTask(QueueStorage& storage,
                                const std::vector<QueueTaskMetadata>& inventory) {
    for (const auto& entry : inventory) {
        auto task = storage.get(entry.taskPersistedId);
        ASSERT_TRUE(task.has_value()) << entry.description();
        EXPECT_EQ(task->type, entry.taskType);
    }
}

TEST(QueueStorageProcessesTest, TwoProcessesCreatingAtOnceLoseNoEntry) {
    vontu::testing::TempDir home;
    constexpr int tasksPerProcess = 50;
    Pipe startGate;

    auto writer = [&](const std::string& type) {
        return [&home, &startGate, type] {
            startGate.closeWrite();
            // Both children wait here until the parent opens the gate by closing its end.
            startGate.readByte();
            QueueProcess process(home.path());
            int failures = 0;
            for (int i = 0; i < tasksPerProcess; ++i) {
                if (!process.storage->create(type, toBytes("{}"), std::nullopt, std::nullopt)
                         .success) {
                    ++failures;
                }
            }
            return failures == 0 ? 0 : 1;
        };
    };
    ForkedChild first(writer("first"));
    ForkedChild second(writer("second"));
    ASSERT_TRUE(first.started() && second.started());
    startGate.closeWrite();
    EXPECT_EQ(first.waitForExit(), 0);
    EXPECT_EQ(second.waitForExit(), 0);

    QueueProcess parent(home.path());
    auto inventory = parent.storage->getInventory();
    EXPECT_EQ(inventory.size(), 2u * tasksPerProcess);
    std::map<std::string, int> perType;
    std::set<std::string> ids;
    for (const auto& entry : inventory) {
        ++perType[entry.taskType];
        ids.insert(entry.taskPersistedId);
    }
    EXPECT_EQ(perType, (std::map<std::string, int>{{"first", tasksPerProcess},
                                                   {"second", tasksPerProcess}}));
    EXPECT_EQ(ids.size(), inventory.size());
    expectEveryEntryHasItsTask(*parent.storage, inventory);
}

TEST(QueueStorageProcessesTest, ProcessKilledWhileWritingLeavesAReadableQueue) {
    vontu::testing::TempDir home;
    constexpr int createsBeforeKill = 25;
    Pipe progress;

    ForkedChild child([&] {
        progress.closeRead();
        QueueProcess process(home.path());
        // Bounded, though the parent kills it long before the end.
        for (int i = 0; i < 100000; ++i) {
            process.storage->create("killed", toBytes(R"({"n":1})"), std::nullopt,
                                    std::vector{QueueTaskGroup::identifiedProfile("u")});
            progress.writeByte();
        }
        return 0;
    });
    ASSERT_TRUE(child.started());
    progress.closeWrite();
    for (int i = 0; i < createsBeforeKill; ++i) ASSERT_TRUE(progress.readByteWithin(60s)) << i;
    child.kill(SIGKILL);
    EXPECT_EQ(child.waitForExit(), 128 + SIGKILL);

    QueueProcess parent(home.path());
    auto inventory = parent.storage->getInventory();
    EXPECT_TRUE(parent.logger->lines().empty());
    EXPECT_GE(inventory.size(), static_cast<std::size_t>(createsBeforeKill));
    expectEveryEntryHasItsTask(*parent.storage, inventory);

    // The dead process's file lock went with it.
    auto result = parent.storage->create("after", toBytes("{}"), std::nullopt, std::nullopt);
    EXPECT_TRUE(result.success);
    EXPECT_EQ(result.queueStatus.numTasksInQueue, static_cast<std::int64_t>(inventory.size() + 1));
}

// True when a process other than this one can take the file lock right now.
bool lockableFromAnotherProcess(const fs::path& lockFile) {
    ForkedChild probe([&] {
        int fd = ::open(lockFile.c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0) return 2;
        return ::flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 1;
    });
    return probe.waitForExit() == 0;
}

TEST(QueueDirectoryLockTest, HeldFromTheOutermostTakeToTheOutermostRelease) {
    vontu::testing::TempDir home;
    QueueProcess process(home.path());
    QueueDirectoryLock lock(siteId, process.logger);
    QueueDirectoryLock sameDirectory(siteId, process.logger);
    ASSERT_TRUE(lock.lockFilePath().has_value());
    const fs::path lockFile = *lock.lockFilePath();
    EXPECT_EQ(lockFile, testing::queueDirectory(siteId) / ".lock");

    lock.lock();
    lock.lock();
    sameDirectory.lock();  // the same thread, through another object: no self-deadlock
    EXPECT_FALSE(lockableFromAnotherProcess(lockFile));
    sameDirectory.unlock();
    lock.unlock();
    EXPECT_FALSE(lockableFromAnotherProcess(lockFile));
    lock.unlock();
    EXPECT_TRUE(lockableFromAnotherProcess(lockFile));
    EXPECT_TRUE(process.logger->lines().empty());
}

TEST(QueueDirectoryLockTest, ForkedChildOpensALockFileOfItsOwn) {
    vontu::testing::TempDir home;
    QueueProcess process(home.path());
    QueueDirectoryLock lock(siteId, process.logger);
    lock.lock();  // opens the lock file, which the child inherits
    lock.unlock();
    Pipe go;
    Pipe acquired;

    ForkedChild child([&] {
        go.closeWrite();
        acquired.closeRead();
        if (!go.readByte()) return 2;
        QueueDirectoryLock inChild(siteId, nullptr);
        inChild.lock();
        acquired.writeByte();
        inChild.unlock();
        return 0;
    });
    ASSERT_TRUE(child.started());
    go.closeRead();
    acquired.closeWrite();
    lock.lock();
    go.writeByte();
    // Had the child locked through the inherited open file, it would get in at once.
    EXPECT_FALSE(acquired.readByteWithin(300ms));
    lock.unlock();
    EXPECT_TRUE(acquired.readByteWithin(60s));
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(QueueDirectoryLockTest, UnopenableLockFileIsReportedOnceAndOperationsGoOn) {
    vontu::testing::TempDir home;
    QueueProcess process(home.path());
    fs::create_directories(testing::queueDirectory(siteId) / ".lock");  // a directory: no file

    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(
            process.storage->create("t", toBytes("{}"), std::nullopt, std::nullopt).success);
    }
    EXPECT_EQ(process.storage->getInventory().size(), 3u);
    // (The first create also reports the missing inventory.)
    std::vector<std::string> lockErrors;
    for (const auto& error : process.logger->messages(RecordingLogger::Level::error)) {
        if (error.starts_with("queue directory lock unavailable")) lockErrors.push_back(error);
    }
    ASSERT_EQ(lockErrors.size(), 1u);
    EXPECT_TRUE(lockErrors[0].ends_with("Is a directory")) << lockErrors[0];
}

}  // namespace
}  // namespace tern
