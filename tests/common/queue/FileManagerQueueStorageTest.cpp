#include "Common/queue/FileManagerQueueStorage.hpp"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/queue/LocalDateFormat.hpp"
#include "Common/util/ConsoleLogger.hpp"
#include "tests/common/queue/QueueTestSupport.hpp"
#include "tests/common/util/RecordingEnv.hpp"

namespace tern {
namespace {

namespace fs = std::filesystem;
using testing::FixedClock;
using testing::readText;
using testing::RecordingEnv;
using testing::writeText;
using vontu::platform::Date;
using vontu::platform::LogType;
using vontu::platform::toBytes;

constexpr const char* siteId = "site1";
constexpr const char* linePrefix = "(siteid:site1) ";

SdkConfig debugConfig(double expiredSeconds = 100.0) {
    SdkConfig config;
    config.logLevel = TernLogLevel::debug;
    config.backgroundQueueExpiredSeconds = expiredSeconds;
    return config;
}

class FileManagerQueueStorageTest : public ::testing::Test {
protected:
    std::shared_ptr<FileManagerQueueStorage> newStorage(SdkConfig config = debugConfig()) {
        return testing::makeQueueStorage(
            siteId, config, std::make_shared<ConsoleLogger>(siteId, config), clock, lockManager);
    }

    fs::path queueDirectory() const { return testing::queueDirectory(siteId); }
    fs::path inventoryFile() const { return queueDirectory() / "inventory.json"; }
    fs::path taskFile(const std::string& id) const {
        return queueDirectory() / "tasks" / (id + ".json");
    }

    // The messages logged at a type since the test began, without the site prefix.
    std::vector<std::string> messages(LogType type) const {
        std::vector<std::string> selected;
        for (const auto& line : env.logLines()) {
            if (line.type != type) continue;
            std::string message = line.message;
            if (message.starts_with(linePrefix)) message.erase(0, std::string(linePrefix).size());
            selected.push_back(message);
        }
        return selected;
    }

    RecordingEnv env;
    std::shared_ptr<FixedClock> clock = std::make_shared<FixedClock>();
    std::shared_ptr<LockManager> lockManager = std::make_shared<LockManager>();
    std::shared_ptr<FileManagerQueueStorage> storage = newStorage();
};

// --- The files, byte for byte

TEST_F(FileManagerQueueStorageTest, CreateWritesTaskFileAndInventoryEntry) {
    clock->set(1700000000.75);
    auto result = storage->create("trackEvent", toBytes(R"({"name":"purchase"})"),
                                  QueueTaskGroup::identifiedProfile("u1"),
                                  std::vector{QueueTaskGroup::registeredPushToken("tok")});

    ASSERT_TRUE(result.success);
    ASSERT_TRUE(result.createdTask.has_value());
    const std::string id = result.createdTask->taskPersistedId;
    EXPECT_TRUE(std::regex_match(id, std::regex("[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}")))
        << id;
    EXPECT_EQ(result.queueStatus, (QueueStatus{siteId, 1}));
    EXPECT_EQ(*result.createdTask,
              (QueueTaskMetadata{id, "trackEvent", "identified_profile_u1",
                                 std::vector<std::string>{"registered_push_tokentok"},
                                 Date{1700000000.0}}));

    EXPECT_EQ(readText(inventoryFile()),
              R"([{"created_at":1700000000,"group_member":["registered_push_tokentok"],)"
              R"("group_start":"identified_profile_u1","task_persisted_id":")" +
                  id + R"(","task_type":"trackEvent"}])");
    EXPECT_EQ(readText(taskFile(id)),
              R"({"data":"eyJuYW1lIjoicHVyY2hhc2UifQ==","run_results":{"total_runs":0},)"
              R"("storage_id":")" +
                  id + R"(","type":"trackEvent"})");
}

TEST_F(FileManagerQueueStorageTest, GroupKeysAreLeftOutOnlyWhenAbsent) {
    struct Case {
        std::optional<QueueTaskGroup> groupStart;
        std::optional<std::vector<QueueTaskGroup>> blockingGroups;
        std::string groupKeys;  // what the entry holds between "created_at" and the id
    };
    const std::vector<Case> cases = {
        {std::nullopt, std::nullopt, ""},
        {std::nullopt, std::vector<QueueTaskGroup>{}, R"("group_member":[],)"},
        {QueueTaskGroup::registeredPushToken("t"), std::nullopt,
         R"("group_start":"registered_push_tokent",)"},
        {std::nullopt,
         std::vector{QueueTaskGroup::identifiedProfile("b"),
                     QueueTaskGroup::identifiedProfile("a")},
         R"("group_member":["identified_profile_b","identified_profile_a"],)"},
    };
    std::string expected = "[";
    for (std::size_t i = 0; i < cases.size(); ++i) {
        auto result = storage->create("identifyProfile", toBytes("{}"), cases[i].groupStart,
                                      cases[i].blockingGroups);
        ASSERT_TRUE(result.success) << i;
        EXPECT_EQ(result.queueStatus.numTasksInQueue, static_cast<std::int64_t>(i + 1));
        if (i > 0) expected += ",";
        expected += R"({"created_at":1700000000,)" + cases[i].groupKeys +
                    R"("task_persisted_id":")" + result.createdTask->taskPersistedId +
                    R"(","task_type":"identifyProfile"})";
    }
    EXPECT_EQ(readText(inventoryFile()), expected + "]");
}

// --- Operations

TEST_F(FileManagerQueueStorageTest, GetUpdateAndDeleteATask) {
    auto first = storage->create("trackEvent", toBytes("a"), std::nullopt, std::nullopt);
    auto second = storage->create("trackEvent", toBytes("b"), std::nullopt, std::nullopt);
    ASSERT_TRUE(first.success && second.success);
    const std::string id = first.createdTask->taskPersistedId;

    EXPECT_EQ(storage->get(id), (QueueTask{id, "trackEvent", toBytes("a"), {0}}));

    const std::string inventoryBefore = readText(inventoryFile());
    ASSERT_TRUE(storage->update(id, QueueTaskRunResults{3}));
    EXPECT_EQ(storage->get(id)->runResults.totalRuns, 3);
    EXPECT_EQ(readText(inventoryFile()), inventoryBefore);

    ASSERT_TRUE(storage->deleteTask(id));
    EXPECT_FALSE(fs::exists(taskFile(id)));
    EXPECT_EQ(storage->getInventory(), std::vector{*second.createdTask});
    EXPECT_EQ(storage->get(id), std::nullopt);
}

TEST_F(FileManagerQueueStorageTest, UnknownIds) {
    auto kept = storage->create("trackEvent", toBytes("a"), std::nullopt, std::nullopt);
    ASSERT_TRUE(kept.success);
    const std::string inventoryBefore = readText(inventoryFile());

    EXPECT_EQ(storage->get("NOPE"), std::nullopt);
    EXPECT_FALSE(storage->update("NOPE", QueueTaskRunResults{1}));
    EXPECT_FALSE(fs::exists(taskFile("NOPE")));

    // The unchanged inventory is written again (the spaced-out copy comes back compact), and
    // removing the missing file fails.
    writeText(inventoryFile(), "[ " + inventoryBefore.substr(1));
    EXPECT_FALSE(storage->deleteTask("NOPE"));
    EXPECT_EQ(readText(inventoryFile()), inventoryBefore);
    EXPECT_EQ(storage->getInventory(), std::vector{*kept.createdTask});
}

TEST_F(FileManagerQueueStorageTest, MissingInventoryReadsAsEmpty) {
    EXPECT_TRUE(storage->getInventory().empty());
    EXPECT_FALSE(storage->deleteTask("NOPE"));
    EXPECT_EQ(readText(inventoryFile()), "[]");
}

TEST_F(FileManagerQueueStorageTest, UnreadableInventoryReadsAsEmptyAndIsReplacedByTheNextCreate) {
    const std::vector<std::string> contents = {
        "",
        "not json",
        "{}",
        R"([{"task_type":"trackEvent","created_at":1}])",
        R"([{"task_persisted_id":"A","task_type":"trackEvent","created_at":"yesterday"}])",
        R"([{"task_persisted_id":"A","task_type":"trackEvent","created_at":1,"group_member":"x"}])",
        "[\xff]",
    };
    for (const auto& text : contents) {
        writeText(inventoryFile(), text);
        const auto errorsBefore = messages(LogType::error).size();
        EXPECT_TRUE(storage->getInventory().empty()) << text;
        EXPECT_EQ(messages(LogType::error).size(), errorsBefore + 1) << text;

        auto result = storage->create("trackEvent", toBytes("{}"), std::nullopt, std::nullopt);
        ASSERT_TRUE(result.success) << text;
        EXPECT_EQ(result.queueStatus.numTasksInQueue, 1) << text;
        EXPECT_EQ(storage->getInventory(), std::vector{*result.createdTask}) << text;
    }
}

TEST_F(FileManagerQueueStorageTest, UnreadableTaskFileReadsAsAbsent) {
    auto created = storage->create("trackEvent", toBytes("{}"), std::nullopt, std::nullopt);
    ASSERT_TRUE(created.success);
    const std::string id = created.createdTask->taskPersistedId;
    const std::vector<std::string> contents = {
        "",
        "[]",
        R"({"data":"not base64!","run_results":{"total_runs":0},"storage_id":"X","type":"t"})",
        R"({"data":"","run_results":{},"storage_id":"X","type":"t"})",
    };
    for (const auto& text : contents) {
        writeText(taskFile(id), text);
        EXPECT_EQ(storage->get(id), std::nullopt) << text;
        EXPECT_FALSE(storage->update(id, QueueTaskRunResults{1})) << text;
        EXPECT_EQ(readText(taskFile(id)), text);
    }
}

TEST_F(FileManagerQueueStorageTest, FailedWritesReportTheCountFromBefore) {
    ASSERT_TRUE(storage->create("trackEvent", toBytes("{}"), std::nullopt, std::nullopt).success);
    const std::string inventoryBefore = readText(inventoryFile());
    const CreateQueueStorageTaskResult failure{false, QueueStatus{siteId, 1}, std::nullopt};

    // The task directory cannot be made: nothing is written at all.
    fs::rename(queueDirectory() / "tasks", queueDirectory() / "tasks.saved");
    writeText(queueDirectory() / "tasks", "in the way");
    EXPECT_EQ(storage->create("trackEvent", toBytes("{}"), std::nullopt, std::nullopt), failure);
    EXPECT_EQ(readText(inventoryFile()), inventoryBefore);
    fs::remove(queueDirectory() / "tasks");
    fs::rename(queueDirectory() / "tasks.saved", queueDirectory() / "tasks");

    // The inventory cannot be replaced: the task file stays behind, unlisted.
    fs::rename(inventoryFile(), queueDirectory() / "inventory.saved");
    fs::create_directory(inventoryFile());
    const auto filesBefore = std::distance(fs::directory_iterator(queueDirectory() / "tasks"), {});
    EXPECT_EQ(storage->create("trackEvent", toBytes("{}"), std::nullopt, std::nullopt),
              (CreateQueueStorageTaskResult{false, QueueStatus{siteId, 0}, std::nullopt}));
    EXPECT_EQ(std::distance(fs::directory_iterator(queueDirectory() / "tasks"), {}),
              filesBefore + 1);
}

// A file storage whose inventory writes claim success but change nothing.
class InventoryDroppingFileStorage final : public FileStorage {
public:
    explicit InventoryDroppingFileStorage(std::shared_ptr<FileStorage> real)
        : real_(std::move(real)) {}
    bool save(FileType type, const vontu::platform::Bytes& contents,
              const std::optional<std::string>& fileId) override {
        return type == FileType::queueInventory || real_->save(type, contents, fileId);
    }
    std::optional<vontu::platform::Bytes> get(FileType type,
                                              const std::optional<std::string>& fileId) override {
        return real_->get(type, fileId);
    }
    bool deleteFile(FileType type, const std::string& fileId) override {
        return real_->deleteFile(type, fileId);
    }

private:
    std::shared_ptr<FileStorage> real_;
};

TEST_F(FileManagerQueueStorageTest, CreateChecksThatTheEntryWasStored) {
    auto config = debugConfig();
    auto logger = std::make_shared<ConsoleLogger>(siteId, config);
    FileManagerQueueStorage dropping(std::make_shared<InventoryDroppingFileStorage>(
                                         std::make_shared<FileManagerFileStorage>(siteId, logger)),
                                     std::make_shared<JsonAdapter>(logger), siteId, config, logger,
                                     clock, lockManager);

    auto result = dropping.create("trackEvent", toBytes("{}"), std::nullopt, std::nullopt);
    EXPECT_EQ(result, (CreateQueueStorageTaskResult{false, QueueStatus{siteId, 0}, std::nullopt}));
    auto errors = messages(LogType::error);
    ASSERT_FALSE(errors.empty());
    EXPECT_THAT(
        errors.back(),
        ::testing::MatchesRegex("🛑 expected to find task QueueTaskMetadata\\(taskPersistedId: "
                                "\"[0-9A-F-]{36}\", taskType: \"trackEvent\", groupStart: "
                                "nil, groupMember: nil, createdAt: 2023-11-14 22:13:20 "
                                "\\+0000\\) to be in the inventory but it wasn't"));
}

// --- Expiry

TEST_F(FileManagerQueueStorageTest, DeleteExpiredKeepsGroupOpenersAndTasksAtTheThreshold) {
    const double now = 1700000000.0;  // expiry 100 s: the threshold is now - 100
    struct Task {
        std::string name;
        double createdAt;
        bool opensGroup;
        bool expires;
    };
    const std::vector<Task> tasks = {
        {"older", now - 101, false, true},
        {"groupOpener", now - 5000, true, false},
        {"groupMember", now - 5000, false, true},
        {"atThreshold", now - 100, false, false},
        {"fresh", now, false, false},
    };
    std::map<std::string, QueueTaskMetadata> entries;
    for (const auto& task : tasks) {
        clock->set(task.createdAt);
        std::optional<QueueTaskGroup> groupStart;
        std::optional<std::vector<QueueTaskGroup>> blocking;
        if (task.opensGroup) groupStart = QueueTaskGroup::identifiedProfile("u");
        if (task.name == "groupMember")
            blocking = std::vector{QueueTaskGroup::identifiedProfile("u")};
        auto result = storage->create(task.name, toBytes("{}"), groupStart, blocking);
        ASSERT_TRUE(result.success);
        entries.emplace(task.name, *result.createdTask);
    }
    clock->set(now);

    auto deleted = storage->deleteExpired();

    std::set<std::string> deletedNames;
    for (const auto& entry : deleted) deletedNames.insert(entry.taskType);
    EXPECT_EQ(deletedNames, (std::set<std::string>{"older", "groupMember"}));
    std::vector<QueueTaskMetadata> remaining;
    for (const auto& task : tasks) {
        const auto& entry = entries.at(task.name);
        EXPECT_EQ(fs::exists(taskFile(entry.taskPersistedId)), !task.expires) << task.name;
        if (!task.expires) remaining.push_back(entry);
    }
    EXPECT_EQ(storage->getInventory(), remaining);

    auto debug = messages(LogType::debug);
    ASSERT_GE(debug.size(), 3u);
    std::vector<std::string> last(debug.end() - 3, debug.end());
    EXPECT_EQ(last[0], "deleting expired tasks from the queue");
    EXPECT_EQ(last[1], "deleting tasks older then " + formatLocalTimestamp(Date{now - 100}) +
                           ",\ncurrent time is: " + formatLocalTimestamp(Date{now}));
    EXPECT_EQ(last[2], "deleting 2 tasks. \n Tasks: [" + deleted[0].description() + ", " +
                           deleted[1].description() + "]");
}

TEST_F(FileManagerQueueStorageTest, DeleteExpiredOfAnEmptyQueueDeletesNothing) {
    EXPECT_TRUE(storage->deleteExpired().empty());
    auto debug = messages(LogType::debug);
    ASSERT_FALSE(debug.empty());
    EXPECT_EQ(debug.back(), "deleting 0 tasks. \n Tasks: []");
}

TEST_F(FileManagerQueueStorageTest,
       ExpiryIsTruncatedToWholeSecondsAndUnusableExpiryDeletesNothing) {
    clock->set(1000.0);
    auto created = storage->create("t", toBytes("{}"), std::nullopt, std::nullopt);
    ASSERT_TRUE(created.success);
    clock->set(1100.5);

    EXPECT_TRUE(newStorage(debugConfig(101.0))->deleteExpired().empty());
    for (double unusable : {std::numeric_limits<double>::infinity(),
                            std::numeric_limits<double>::quiet_NaN(), 1e19, -1e19}) {
        EXPECT_TRUE(newStorage(debugConfig(unusable))->deleteExpired().empty()) << unusable;
        EXPECT_EQ(storage->getInventory().size(), 1u);
    }
    // 100.9 counts as 100: the threshold is 1000.5, after the task's 1000.
    EXPECT_EQ(newStorage(debugConfig(100.9))->deleteExpired(), std::vector{*created.createdTask});
}

// --- Threads of one process

TEST_F(FileManagerQueueStorageTest, ConcurrentCreatesFromTwoStorageObjectsLoseNothing) {
    auto other = newStorage();
    constexpr int perThread = 20;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        auto* target = t % 2 == 0 ? storage.get() : other.get();
        threads.emplace_back([target, t] {
            for (int i = 0; i < perThread; ++i) {
                target->create("thread" + std::to_string(t), toBytes("{}"), std::nullopt,
                               std::nullopt);
            }
        });
    }
    for (auto& thread : threads) thread.join();

    auto inventory = storage->getInventory();
    EXPECT_EQ(inventory.size(), 4u * perThread);
    std::set<std::string> ids;
    for (const auto& entry : inventory) ids.insert(entry.taskPersistedId);
    EXPECT_EQ(ids.size(), inventory.size());
}

}  // namespace
}  // namespace tern
