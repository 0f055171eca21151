// The library's stores on the platform: the key-value suites of a site and of all sites, and
// the files of the queue when the platform has no place for them. Reading and writing the
// queue's files, and writes that fail, are exercised through the queue storage's tests.

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
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using Key = KeyValueStorageKey;
using vontu::platform::Date;
using vontu::platform::PlistValue;
using vontu::platform::toBytes;
namespace fs = std::filesystem;

constexpr const char* siteSuite = "dev.tern.sdk.ios.vontu.site1";
constexpr const char* sharedSuite = "dev.tern.sdk.ios.vontu.shared";

class KeyValueStorageTest : public ::testing::Test {
protected:
    // The platform's bundle id is "ios.vontu".
    static std::shared_ptr<UserDefaultsKeyValueStorage> storage(
        std::optional<std::string> siteId = "site1", bool withBundleId = true) {
        return std::make_shared<UserDefaultsKeyValueStorage>(
            std::move(siteId),
            withBundleId ? std::make_shared<DeviceMetricsGrabberImpl>() : nullptr);
    }
    std::shared_ptr<vontu::platform::DefaultsSuite> suite(const std::string& name) {
        return testEnv.env().defaultsSuite(name);
    }

    vontu::testing::TestEnv testEnv;
};

TEST_F(KeyValueStorageTest, SuiteNameNamesLibraryBundleAndSiteOrShared) {
    EXPECT_EQ(storage()->suiteName(), siteSuite);
    EXPECT_EQ(storage(std::nullopt)->suiteName(), sharedSuite);
    EXPECT_EQ(storage("site1", false)->suiteName(), "dev.tern.sdk.site1");
}

TEST_F(KeyValueStorageTest, ValuesAreStoredInPlainFormsAndReadAsOtherWritersStoreThem) {
    auto store = storage();
    auto site = suite(siteSuite);
    store->setInt(42, Key::identifiedProfileId);
    EXPECT_EQ(store->integer(Key::identifiedProfileId), 42);
    store->setDouble(2.5, Key::pushDeviceToken);
    EXPECT_EQ(store->doubleValue(Key::pushDeviceToken), 2.5);
    store->setString("abc", Key::identifiedProfileId);
    EXPECT_EQ(site->objectForKey("identifiedProfileId"), PlistValue("abc"));
    store->setDate(Date{1700000000.25}, Key::httpRequestsPauseEnds);
    EXPECT_EQ(site->objectForKey("httpRequestsPauseEnds"), PlistValue(1700000000.25));
    store->setString(std::nullopt, Key::identifiedProfileId);
    EXPECT_EQ(site->objectForKey("identifiedProfileId"), std::nullopt);

    // Zero, and dates not after 1970, read as absent.
    site->setObject(PlistValue(std::int64_t{0}), "identifiedProfileId");
    site->setObject(PlistValue(0.0), "pushDeviceToken");
    EXPECT_EQ(store->integer(Key::identifiedProfileId), std::nullopt);
    EXPECT_EQ(store->doubleValue(Key::pushDeviceToken), std::nullopt);
    for (double seconds : {-86400.0, 0.0}) {
        site->setObject(PlistValue(seconds), "httpRequestsPauseEnds");
        EXPECT_EQ(store->date(Key::httpRequestsPauseEnds), std::nullopt) << seconds;
    }
    // Another writer of the suite may have stored the other kind of number.
    site->setObject(PlistValue(std::int64_t{1700000000}), "httpRequestsPauseEnds");
    site->setObject(PlistValue(7.9), "identifiedProfileId");
    EXPECT_EQ(store->date(Key::httpRequestsPauseEnds), Date{1700000000.0});
    EXPECT_EQ(store->integer(Key::identifiedProfileId), 7);
    EXPECT_EQ(store->string(Key::identifiedProfileId), std::nullopt);
}

TEST_F(KeyValueStorageTest, GlobalAndProfileStoresKeepToTheirSuitesAndDeleteOnlyTheirOwn) {
    TernGlobalDataStore global(storage());
    TernProfileStore profile(storage());
    global.setPushDeviceToken("token-1");
    global.setHttpRequestsPauseEnds(Date{1800000000.0});
    profile.setIdentifier("person@example.com");
    suite(sharedSuite)->setObject(PlistValue("not ours"), "foreignKey");

    EXPECT_EQ(suite(sharedSuite)->objectForKey("pushDeviceToken"), PlistValue("token-1"));
    EXPECT_EQ(suite(sharedSuite)->objectForKey("httpRequestsPauseEnds"), PlistValue(1800000000.0));
    EXPECT_EQ(suite(siteSuite)->objectForKey("identifiedProfileId"),
              PlistValue("person@example.com"));
    EXPECT_EQ(global.httpRequestsPauseEnds(), Date{1800000000.0});

    global.deleteAll();
    EXPECT_TRUE(suite(sharedSuite)->dictionaryRepresentation().empty());
    EXPECT_EQ(profile.identifier(), "person@example.com");
}

class NoDefaultsEnv final : public vontu::platform::EnvWrapper {
public:
    using EnvWrapper::EnvWrapper;
    std::shared_ptr<vontu::platform::DefaultsSuite> defaultsSuite(const std::string&) override {
        return nullptr;
    }
};

TEST_F(KeyValueStorageTest, SuiteThatCannotBeOpenedReadsAbsentAndIgnoresWrites) {
    auto store = storage();
    store->setString("kept", Key::pushDeviceToken);
    {
        NoDefaultsEnv failing(testEnv.env());
        testing::ScopedCurrentEnv installed(failing, testEnv.env());
        store->setInt(5, Key::identifiedProfileId);
        EXPECT_EQ(store->string(Key::pushDeviceToken), std::nullopt);
        store->deleteAll();
    }
    EXPECT_EQ(suite(siteSuite)->dictionaryRepresentation().size(), 1u);
}

// --- Files

class NoApplicationSupportEnv final : public vontu::platform::EnvWrapper {
public:
    using EnvWrapper::EnvWrapper;
    std::optional<fs::path> applicationSupportDirectory() override { return std::nullopt; }
};

TEST(FileStorageTest, WithoutAnApplicationSupportDirectoryThereIsNoFileAndNoLogLine) {
    vontu::testing::TestEnv testEnv;
    auto logger = std::make_shared<testing::RecordingLogger>();
    FileManagerFileStorage storage("site1", logger);
    {
        NoApplicationSupportEnv failing(testEnv.env());
        testing::ScopedCurrentEnv installed(failing, testEnv.env());
        EXPECT_FALSE(storage.save(FileType::queueInventory, toBytes("[]"), std::nullopt));
        EXPECT_EQ(storage.get(FileType::queueInventory, std::nullopt), std::nullopt);
        EXPECT_FALSE(storage.deleteFile(FileType::queueTask, "abc"));
    }
    EXPECT_FALSE(storage.save(FileType::queueTask, toBytes("x"), std::nullopt));  // no file id
    EXPECT_TRUE(logger->lines().empty());
    EXPECT_FALSE(fs::exists(testEnv.home() / "apps" / "ios.vontu" / "support" / "dev.tern"));
}

}  // namespace
}  // namespace tern
