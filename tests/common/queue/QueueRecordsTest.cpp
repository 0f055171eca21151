#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "Common/queue/CreateQueueStorageTaskResult.hpp"
#include "Common/queue/LocalDateFormat.hpp"
#include "Common/queue/QueueStatus.hpp"
#include "Common/queue/QueueTask.hpp"
#include "Common/queue/QueueTaskGroup.hpp"
#include "Common/queue/QueueTaskMetadata.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "tests/common/RecordingLogger.hpp"

namespace tern {
namespace {

using testing::RecordingLogger;
using vontu::platform::Date;
using vontu::platform::toBytes;
using vontu::platform::toString;

QueueTaskMetadata sampleMetadata() {
    return {"A1", "trackEvent", "identified_profile_u\"1",
            std::vector<std::string>{"registered_push_tokent", "x"}, Date{1700000000.0}};
}

TEST(QueueTaskGroupTest, StringsAndDescriptions) {
    auto profile = QueueTaskGroup::identifiedProfile("user@example.com");
    auto token = QueueTaskGroup::registeredPushToken("abc123");
    EXPECT_EQ(profile.string(), "identified_profile_user@example.com");
    EXPECT_EQ(token.string(), "registered_push_tokenabc123");
    EXPECT_EQ(profile.description(), "identifiedProfile(\"user@example.com\")");
    EXPECT_EQ(token.description(), "registeredPushToken(\"abc123\")");
    EXPECT_EQ(token.kind(), QueueTaskGroup::Kind::registeredPushToken);
    EXPECT_EQ(token.associatedValue(), "abc123");
    EXPECT_NE(QueueTaskGroup::identifiedProfile("a"), QueueTaskGroup::registeredPushToken("a"));
}

TEST(QueueRecordsTest, Descriptions) {
    auto metadata = sampleMetadata();
    EXPECT_EQ(metadata.description(),
              "QueueTaskMetadata(taskPersistedId: \"A1\", taskType: \"trackEvent\", groupStart: "
              "Optional(\"identified_profile_u\\\"1\"), groupMember: "
              "Optional([\"registered_push_tokent\", \"x\"]), createdAt: 2023-11-14 22:13:20 "
              "+0000)");
    metadata.groupStart.reset();
    metadata.groupMember.emplace();
    EXPECT_EQ(metadata.description(),
              "QueueTaskMetadata(taskPersistedId: \"A1\", taskType: \"trackEvent\", groupStart: "
              "nil, groupMember: Optional([]), createdAt: 2023-11-14 22:13:20 +0000)");

    EXPECT_EQ((QueueTaskRunResults{2}).description(), "QueueTaskRunResults(totalRuns: 2)");
    EXPECT_EQ((QueueTask{"A1", "trackEvent", toBytes("{\"a\":1}\n"), {1}}).description(),
              "QueueTask(storageId: \"A1\", type: \"trackEvent\", data: 8 bytes, runResults: "
              "QueueTaskRunResults(totalRuns: 1))");
    EXPECT_EQ((QueueStatus{"site", 3}).description(),
              "QueueStatus(queueId: \"site\", numTasksInQueue: 3)");
    EXPECT_EQ((CreateQueueStorageTaskResult{false, {"site", 0}, std::nullopt}).description(),
              "CreateQueueStorageTaskResult(success: false, queueStatus: QueueStatus(queueId: "
              "\"site\", numTasksInQueue: 0), createdTask: nil)");
}

TEST(QueueRecordsTest, MetadataEqualityAndHashingCoverAllFiveFields) {
    const auto base = sampleMetadata();
    std::vector<QueueTaskMetadata> variants(5, base);
    variants[0].taskPersistedId = "A2";
    variants[1].taskType = "identifyProfile";
    variants[2].groupStart.reset();
    variants[3].groupMember.emplace();  // an empty list is not the same as no list
    variants[4].createdAt = Date{1700000001.0};

    std::unordered_set<QueueTaskMetadata> set{base, base};
    for (const auto& variant : variants) {
        EXPECT_NE(variant, base);
        set.insert(variant);
        set.insert(variant);
    }
    EXPECT_EQ(set.size(), 6u);

    auto noMembers = base;
    noMembers.groupMember.reset();
    EXPECT_NE(noMembers, variants[3]);
    EXPECT_EQ(std::hash<QueueTaskMetadata>{}(base),
              std::hash<QueueTaskMetadata>{}(sampleMetadata()));
    auto zero = base, negativeZero = base;
    zero.createdAt = Date{0.0};
    negativeZero.createdAt = Date{-0.0};
    EXPECT_EQ(std::hash<QueueTaskMetadata>{}(zero), std::hash<QueueTaskMetadata>{}(negativeZero));
}

TEST(QueueRecordsTest, JsonReadingRules) {
    auto logger = std::make_shared<RecordingLogger>();
    JsonAdapter adapter(logger);

    // Fractional dates are read; null group keys read as absent; unknown keys are ignored.
    auto metadata = adapter.fromJson<QueueTaskMetadata>(
        R"({"created_at":12.5,"group_member":null,"group_start":null,"task_persisted_id":"A",)"
        R"("task_type":"t","extra":true})");
    ASSERT_TRUE(metadata.has_value());
    EXPECT_EQ(*metadata, (QueueTaskMetadata{"A", "t", std::nullopt, std::nullopt, Date{12.5}}));
    // ... and written as whole seconds, truncated.
    EXPECT_EQ(adapter.toJsonString(*metadata, false),
              R"({"created_at":12,"task_persisted_id":"A","task_type":"t"})");

    auto task = adapter.fromJson<QueueTask>(
        R"({"data":"e30=","run_results":{"total_runs":7},"storage_id":"A","type":"t"})");
    ASSERT_TRUE(task.has_value());
    EXPECT_EQ(*task, (QueueTask{"A", "t", toBytes("{}"), {7}}));
    EXPECT_TRUE(logger->lines().empty());

    EXPECT_EQ(adapter.fromJson<QueueTask>(R"({"data":"e30=","storage_id":"A","type":"t"})"),
              std::nullopt);
    ASSERT_EQ(logger->lines().size(), 1u);
    EXPECT_TRUE(logger->lines()[0].message.starts_with("Decode key not found. Key: run_results,"))
        << logger->lines()[0].message;
}

// Sets TZ for the life of the object. The test process has no other threads at this point,
// so changing the environment is safe.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* current = std::getenv("TZ")) previous_ = current;
        ::setenv("TZ", zone, 1);
    }
    ~ScopedTimeZone() {
        if (previous_) {
            ::setenv("TZ", previous_->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }

private:
    std::optional<std::string> previous_;
};

TEST(LocalDateFormatTest, WholeSecondsInTheLocalZoneWithItsOffset) {
    struct Case {
        const char* zone;
        double seconds;
        const char* expected;
    };
    const Case cases[] = {
        {"UTC0", 1700000000.9, "2023-11-14T22:13:20+0000"},
        {"<+0530>-5:30", 1700000000.0, "2023-11-15T03:43:20+0530"},
        {"<-03>3", 1700000000.0, "2023-11-14T19:13:20-0300"},
        {"UTC0", -1.5, "1969-12-31T23:59:58+0000"},
        {"UTC0", 0.0, "1970-01-01T00:00:00+0000"},
    };
    for (const auto& c : cases) {
        ScopedTimeZone zone(c.zone);
        EXPECT_EQ(formatLocalTimestamp(Date{c.seconds}), c.expected) << c.zone << " " << c.seconds;
    }
}

}  // namespace
}  // namespace tern
