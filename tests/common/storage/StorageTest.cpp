// The library's key-value suites and, when the platform has no place for them, the queue's files.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "Common/storage/FileManagerFileStorage.hpp"
#include "Common/storage/TernGlobalDataStore.hpp"
#include "Common/storage/TernProfileStore.hpp"
#include "Common/storage/UserDefaultsKeyValueStorage.hpp"
#include "Common/util/DeviceMetricsGrabberImpl.hpp"
#include "tests/common/RecordingLogger.hpp"
#include "tests/common/ScopedCurrentEnv.hpp"
#include "platform/EnvWrapper.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using Key = KeyValueStorageKey;
using vontu::platform::Date;
using vontu::platform::PlistValue;
namespace fs = std::filesystem;

constexpr const char* sharedSuite = "dev.tern.sdk.ios.vontu.shared";

class KeyValueStorageTest : public ::testing::Test {
protected:
    // The platform's bundle id is "ios.vontu".
    static std::shared_ptr<UserDefaultsKeyValueStorage> storage(bool withBundleId = true) {
        return std::make_shared<UserDefaultsKeyValueStorage>(
            "site1", withBundleId ? std::make_shared<DeviceMetricsGrabberImpl>() : nullptr);
    }
    std::shared_ptr<vontu::platform::DefaultsSuite> suite(const std::string& name) {
        return testEnv.env().defaultsSuite(name);
    }

    vontu::testing::TestEnv testEnv;
};

TEST_F(KeyValueStorageTest, ValuesAreStoredInPlainFormsAndReadAsOtherWritersStoreThem) {
    EXPECT_EQ(storage(false)->suiteName(), "dev.tern.sdk.site1");
    auto store = storage();
    auto site = suite("dev.tern.sdk.ios.vontu.site1");
    store->setDate(Date{1700000000.25}, Key::httpRequestsPauseEnds);
    EXPECT_EQ(site->objectForKey("httpRequestsPauseEnds"), PlistValue(1700000000.25));
    store->setInt(42, Key::identifiedProfileId);
    EXPECT_EQ(site->objectForKey("identifiedProfileId"), PlistValue(std::int64_t{42}));

    // Zero, and dates not after 1970, read as absent.
    site->setObject(PlistValue(std::int64_t{0}), "identifiedProfileId");
    site->setObject(PlistValue(-86400.0), "httpRequestsPauseEnds");
    EXPECT_EQ(store->integer(Key::identifiedProfileId), std::nullopt);
    EXPECT_EQ(store->date(Key::httpRequestsPauseEnds), std::nullopt);
    // Another writer of the suite may have stored the other kind of number.
    site->setObject(PlistValue(std::int64_t{1700000000}), "httpRequestsPauseEnds");
    site->setObject(PlistValue(7.9), "identifiedProfileId");
    EXPECT_EQ(store->date(Key::httpRequestsPauseEnds), Date{1700000000.0});
    EXPECT_EQ(store->integer(Key::identifiedProfileId), 7);
    EXPECT_EQ(store->string(Key::identifiedProfileId), std::nullopt);
}

TEST_F(KeyValueStorageTest, GlobalStoreDeletesAllOfTheSharedSuiteAndNothingOfTheSite) {
    TernGlobalDataStore global(storage());
    TernProfileStore profile(storage());
    global.setPushDeviceToken("token-1");
    profile.setIdentifier("person@example.com");
    suite(sharedSuite)->setObject(PlistValue("not ours"), "foreignKey");
    global.deleteAll();
    EXPECT_TRUE(suite(sharedSuite)->dictionaryRepresentation().empty());
    EXPECT_EQ(profile.identifier(), "person@example.com");
}

// A platform that can open no defaults suite and has no application support directory.
class NowhereToStoreEnv final : public vontu::platform::EnvWrapper {
public:
    using EnvWrapper::EnvWrapper;
    std::shared_ptr<vontu::platform::DefaultsSuite> defaultsSuite(const std::string&) override {
        return nullptr;
    }
    std::optional<fs::path> applicationSupportDirectory() override { return std::nullopt; }
};

TEST_F(KeyValueStorageTest, WithNowhereToStoreReadsAreAbsentAndWritesIgnoredWithoutALogLine) {
    auto store = storage();
    store->setString("kept", Key::pushDeviceToken);
    auto logger = std::make_shared<testing::RecordingLogger>();
    FileManagerFileStorage files("site1", logger);
    {
        NowhereToStoreEnv failing(testEnv.env());
        testing::ScopedCurrentEnv installed(failing, testEnv.env());
        store->setInt(5, Key::identifiedProfileId);
        EXPECT_EQ(store->string(Key::pushDeviceToken), std::nullopt);
        store->deleteAll();
        EXPECT_FALSE(files.save(FileType::queueInventory, vontu::platform::toBytes("[]"), {}));
        EXPECT_EQ(files.get(FileType::queueInventory, std::nullopt), std::nullopt);
        EXPECT_FALSE(files.deleteFile(FileType::queueTask, "abc"));
    }
    EXPECT_EQ(suite("dev.tern.sdk.ios.vontu.site1")->dictionaryRepresentation().size(), 1u);
    EXPECT_TRUE(logger->lines().empty());
    EXPECT_FALSE(fs::exists(testEnv.home() / "apps" / "ios.vontu" / "support" / "dev.tern"));
}

}  // namespace
}  // namespace tern
