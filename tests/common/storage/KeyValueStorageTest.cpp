#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "Common/storage/TernGlobalDataStore.hpp"
#include "Common/storage/TernProfileStore.hpp"
#include "Common/storage/UserDefaultsKeyValueStorage.hpp"
#include "tests/common/ScopedCurrentEnv.hpp"
#include "tests/support/TestEnv.hpp"

namespace tern {
namespace {

using vontu::platform::Date;
using vontu::platform::PlistValue;

class FixedBundle final : public DeviceMetricsGrabber {
public:
    explicit FixedBundle(std::optional<std::string> bundleId) : bundleId_(std::move(bundleId)) {}
    std::optional<std::string> appBundleId() const override { return bundleId_; }

private:
    std::optional<std::string> bundleId_;
};

constexpr const char* siteSuite = "dev.tern.sdk.ios.vontu.site1";
constexpr const char* sharedSuite = "dev.tern.sdk.ios.vontu.shared";

class KeyValueStorageTest : public ::testing::Test {
protected:
    std::shared_ptr<UserDefaultsKeyValueStorage> storage(
        std::optional<std::string> siteId = "site1",
        std::optional<std::string> bundleId = "ios.vontu") {
        return std::make_shared<UserDefaultsKeyValueStorage>(
            std::move(siteId), std::make_shared<FixedBundle>(std::move(bundleId)));
    }
    std::shared_ptr<vontu::platform::DefaultsSuite> suite(const std::string& name) {
        return testEnv.env().defaultsSuite(name);
    }

    vontu::testing::TestEnv testEnv;
};

TEST_F(KeyValueStorageTest, SuiteNameNamesLibraryBundleAndSiteOrShared) {
    EXPECT_EQ(storage()->suiteName(), siteSuite);
    EXPECT_EQ(storage(std::nullopt)->suiteName(), sharedSuite);
    EXPECT_EQ(storage("site1", std::nullopt)->suiteName(), "dev.tern.sdk.site1");
    EXPECT_EQ(storage(std::nullopt, std::nullopt)->suiteName(), "dev.tern.sdk.shared");

    auto switched = storage();
    switched->switchToGlobalDataStore();
    EXPECT_EQ(switched->suiteName(), sharedSuite);
}

TEST_F(KeyValueStorageTest, ValuesRoundTripAndAbsentRemovesTheKey) {
    auto store = storage();
    store->setInt(42, KeyValueStorageKey::identifiedProfileId);
    EXPECT_EQ(store->integer(KeyValueStorageKey::identifiedProfileId), 42);
    store->setDouble(2.5, KeyValueStorageKey::pushDeviceToken);
    EXPECT_EQ(store->doubleValue(KeyValueStorageKey::pushDeviceToken), 2.5);
    store->setString("abc", KeyValueStorageKey::identifiedProfileId);
    EXPECT_EQ(store->string(KeyValueStorageKey::identifiedProfileId), "abc");
    store->setDate(Date{1700000000.25}, KeyValueStorageKey::httpRequestsPauseEnds);
    EXPECT_EQ(store->date(KeyValueStorageKey::httpRequestsPauseEnds), Date{1700000000.25});

    // The stored forms are plain numbers and text, as other processes read them.
    EXPECT_EQ(suite(siteSuite)->objectForKey("httpRequestsPauseEnds"),
              PlistValue(1700000000.25));
    EXPECT_EQ(suite(siteSuite)->objectForKey("identifiedProfileId"), PlistValue("abc"));

    store->setString(std::nullopt, KeyValueStorageKey::identifiedProfileId);
    EXPECT_EQ(store->string(KeyValueStorageKey::identifiedProfileId), std::nullopt);
    EXPECT_EQ(suite(siteSuite)->objectForKey("identifiedProfileId"), std::nullopt);
}

TEST_F(KeyValueStorageTest, ZeroAndDatesNotAfter1970ReadAsAbsent) {
    auto store = storage();
    store->setInt(0, KeyValueStorageKey::identifiedProfileId);
    EXPECT_EQ(store->integer(KeyValueStorageKey::identifiedProfileId), std::nullopt);
    store->setDouble(0.0, KeyValueStorageKey::pushDeviceToken);
    EXPECT_EQ(store->doubleValue(KeyValueStorageKey::pushDeviceToken), std::nullopt);

    for (double seconds : {-86400.0, 0.0}) {
        store->setDate(Date{seconds}, KeyValueStorageKey::httpRequestsPauseEnds);
        EXPECT_EQ(store->date(KeyValueStorageKey::httpRequestsPauseEnds), std::nullopt) << seconds;
    }
}

TEST_F(KeyValueStorageTest, NumbersWrittenByOthersAsTheOtherKindStillRead) {
    suite(siteSuite)->setObject(PlistValue(std::int64_t{1700000000}), "httpRequestsPauseEnds");
    suite(siteSuite)->setObject(PlistValue(7.9), "identifiedProfileId");
    auto store = storage();
    EXPECT_EQ(store->date(KeyValueStorageKey::httpRequestsPauseEnds), Date{1700000000.0});
    EXPECT_EQ(store->integer(KeyValueStorageKey::identifiedProfileId), 7);
    EXPECT_EQ(store->string(KeyValueStorageKey::identifiedProfileId), std::nullopt);
}

TEST_F(KeyValueStorageTest, DeleteAllEmptiesOnlyItsOwnSuite) {
    auto site = storage();
    auto shared = storage(std::nullopt);
    auto fill = [&] {
        site->setString("profile", KeyValueStorageKey::identifiedProfileId);
        shared->setString("token", KeyValueStorageKey::pushDeviceToken);
        suite(siteSuite)->setObject(PlistValue("not ours"), "foreignKey");
    };

    fill();
    site->deleteAll();
    EXPECT_TRUE(suite(siteSuite)->dictionaryRepresentation().empty());
    EXPECT_EQ(shared->string(KeyValueStorageKey::pushDeviceToken), "token");

    fill();
    shared->deleteAll();
    EXPECT_TRUE(suite(sharedSuite)->dictionaryRepresentation().empty());
    EXPECT_EQ(site->string(KeyValueStorageKey::identifiedProfileId), "profile");
}

TEST_F(KeyValueStorageTest, CorruptDatabaseReadsAbsentAndIgnoresWrites) {
    const auto file = testEnv.home() / "preferences" / (std::string(siteSuite) + ".sqlite");
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << "this is not a database, only text that is long enough to look like "
                           "a header of something else entirely";
    auto store = storage();
    store->setString("lost", KeyValueStorageKey::identifiedProfileId);
    EXPECT_EQ(store->string(KeyValueStorageKey::identifiedProfileId), std::nullopt);
    store->deleteAll();
}

class NoDefaultsEnv final : public vontu::platform::EnvWrapper {
public:
    using EnvWrapper::EnvWrapper;
    std::shared_ptr<vontu::platform::DefaultsSuite> defaultsSuite(const std::string&) override {
        return nullptr;
    }
};

TEST_F(KeyValueStorageTest, SuiteThatCannotBeOpenedReadsAbsent) {
    auto store = storage();
    {
        NoDefaultsEnv failing(testEnv.env());
        testing::ScopedCurrentEnv installed(failing, testEnv.env());
        store->setInt(5, KeyValueStorageKey::identifiedProfileId);
        store->setDate(Date{1700000000.0}, KeyValueStorageKey::httpRequestsPauseEnds);
        EXPECT_EQ(store->integer(KeyValueStorageKey::identifiedProfileId), std::nullopt);
        EXPECT_EQ(store->date(KeyValueStorageKey::httpRequestsPauseEnds), std::nullopt);
        store->deleteAll();
    }
    EXPECT_TRUE(suite(siteSuite)->dictionaryRepresentation().empty());
}

TEST_F(KeyValueStorageTest, GlobalDataStoreUsesSharedSuiteAndProfileStoreTheSitesSuite) {
    TernGlobalDataStore global(storage());
    TernProfileStore profile(storage());

    global.setPushDeviceToken("token-1");
    global.setHttpRequestsPauseEnds(Date{1800000000.0});
    profile.setIdentifier("person@example.com");

    EXPECT_EQ(suite(sharedSuite)->objectForKey("pushDeviceToken"), PlistValue("token-1"));
    EXPECT_EQ(suite(sharedSuite)->objectForKey("httpRequestsPauseEnds"), PlistValue(1800000000.0));
    EXPECT_EQ(suite(siteSuite)->objectForKey("identifiedProfileId"),
              PlistValue("person@example.com"));
    EXPECT_EQ(global.pushDeviceToken(), "token-1");
    EXPECT_EQ(global.httpRequestsPauseEnds(), Date{1800000000.0});
    EXPECT_EQ(profile.identifier(), "person@example.com");

    global.deleteAll();
    EXPECT_EQ(global.pushDeviceToken(), std::nullopt);
    EXPECT_EQ(profile.identifier(), "person@example.com");
}

}  // namespace
}  // namespace tern
