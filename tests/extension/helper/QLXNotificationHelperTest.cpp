#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "extension/QLXNotificationHelper.hpp"
#include "extension/SenderInitials.hpp"
#include "platform/Env.hpp"
#include "tests/extension/helper/PngPixels.hpp"
#include "tests/support/TestEnv.hpp"

namespace vontu::testing {
namespace {

using extension::QLXNotificationHelper;
using platform::Bytes;
using platform::Rgba;
using Text = std::optional<std::string>;

constexpr Rgba kPalette0{0.498, 0.859, 1.0, 1.0};
constexpr Rgba kPalette1{0.0, 0.478, 1.0, 1.0};
constexpr Rgba kPalette5{1.0, 0.522, 0.106, 1.0};
constexpr Rgba kPalette9{0.522, 0.078, 0.294, 1.0};

TestEnv makeEnv(const std::string& systemVersion = "17.0") {
    platform::linux_host::HostSettings settings;
    settings.systemVersion = systemVersion;
    return TestEnv(std::move(settings));
}

std::filesystem::path avatarPath(const std::string& address) {
    auto path = QLXNotificationHelper::imagePathForSender(address);
    EXPECT_TRUE(path.has_value());
    return path.value_or("");
}

// --- Address entries

struct EntryCase {
    Text entry;
    Text name;
    Text email;
};

TEST(QLXNotificationHelperParsing, SplitsEntriesAtTheAngleBracket) {
    const std::vector<EntryCase> cases{
        {"Jane Doe <jane@example.com>", "Jane Doe ", "jane@example.com"},
        {"jane@example.com", std::nullopt, "jane@example.com"},
        {"jane@example.com>>", std::nullopt, "jane@example.com"},
        {"<jane@example.com>", "", "jane@example.com"},
        {"", std::nullopt, ""},
        {" Jane <jane@example.com> ", " Jane ", "jane@example.com "},
        {"A <b> <c>", "A ", "c"},
        {"Jane >Doe< x", "Jane >Doe", " x"},
        {"Jane, Doe <jane@example.com>", "Jane, Doe ", "jane@example.com"},
        {"Иван Петров <ivan@example.ru>", "Иван Петров ", "ivan@example.ru"},
        {"😀 Smile <smile@example.com>", "😀 Smile ", "smile@example.com"},
        {"דוד כהן <david@example.co.il>", "דוד כהן ", "david@example.co.il"},
        {std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.entry.value_or("(absent)"));
        EXPECT_EQ(QLXNotificationHelper::nameFromString(c.entry), c.name);
        EXPECT_EQ(QLXNotificationHelper::emailFromString(c.entry), c.email);
    }
}

struct RecipientsCase {
    Text participants;
    std::vector<std::pair<std::string, std::string>> persons;  // display name, address
};

TEST(QLXNotificationHelperParsing, RecipientsAreTheEntriesWithADisplayName) {
    TestEnv env = makeEnv();
    const std::vector<RecipientsCase> cases{
        {"Ann <ann@example.com>, Bob  <bob@example.com>\r\n",
         {{"Ann ", "ann@example.com"}, {" Bob  ", "bob@example.com"}}},
        {"ann@example.com, Bob <bob@example.com>", {{" Bob ", "bob@example.com"}}},
        {"Ann <ann@example.com>,,Bob <bob@example.com>,",
         {{"Ann ", "ann@example.com"}, {"Bob ", "bob@example.com"}}},
        {"Ann\r\n Lee <ann@example.com>", {{"Ann Lee ", "ann@example.com"}}},
        {"Ann <ann@exa\nmple.com>", {{"Ann ", "ann@example.com"}}},
        {"李 小龙 <li@example.cn>", {{"李 小龙 ", "li@example.cn"}}},
        {"", {}},
        {std::nullopt, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.participants.value_or("(absent)"));
        auto persons = QLXNotificationHelper::recipientsForMail(c.participants);
        ASSERT_EQ(persons.size(), c.persons.size());
        for (std::size_t i = 0; i < persons.size(); ++i) {
            EXPECT_EQ(persons[i].displayName, c.persons[i].first);
            EXPECT_EQ(persons[i].handle.value, c.persons[i].second);
        }
    }
}

// --- Initials and colours

struct InitialsCase {
    Text name;
    Text mailbox;
    std::string initials;
};

TEST(QLXNotificationHelperInitials, FirstLettersOfTheFirstTwoWords) {
    const std::vector<InitialsCase> cases{
        {"jane doe", "jane@example.com", "JD"},
        {"Jane Mary Doe", "jane@example.com", "JM"},
        {"1st jane doe", "x@example.com", "JD"},
        {"  jane   doe ", "x@example.com", "JD"},
        {"jane\tdoe", "x@example.com", "J"},
        {"élodie ßmith", "x@example.com", "ÉSS"},
        {"иван петров", "ivan@example.ru", "ИП"},
        {"דוד כהן", "david@example.co.il", "דכ"},
        {"李 小龙", "li@example.cn", "李小"},
        {"😀 smile face", "x@example.com", "SF"},
        {"\u0661abc def", "x@example.com", "D"},  // an Arabic-Indic digit is no letter
        {"", "ab@example.com", "a"},                // the address keeps its case
        {"", "Ab@example.com", "A"},
        {"123 !!", "zed@example.com", "z"},
        {std::nullopt, "jo", "j"},
        {"", "😀x", "😀"},
        {"", "a", ""},
        {"", "", ""},
        {"", std::nullopt, ""},
        {std::nullopt, std::nullopt, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name.value_or("(absent)") + " / " + c.mailbox.value_or("(absent)"));
        EXPECT_EQ(extension::senderInitials(c.name, c.mailbox), c.initials);
    }
}

struct ColorCase {
    Text sender;
    Rgba color;
};

TEST(QLXNotificationHelperInitials, ColourComesFromTheFirstTenLowerCaseLetters) {
    const std::vector<ColorCase> cases{
        {"Ab", kPalette1},          // 0 + 1
        {"zzz", kPalette5},         // 75 mod 10
        {"ZZZ", kPalette5},         // lower-cased first
        {"12 -!", kPalette0},       // no letters
        {"", kPalette0},
        {std::nullopt, kPalette0},
        {"aaaaaaaaab", kPalette1},  // b is the tenth character
        {"aaaaaaaaaab", kPalette0}, // b is the eleventh and does not count
        {"éa b", kPalette1},        // é is not in a to z
        {"j", kPalette9},
        // İ lower-cases to two units, so the b is pushed out of the first ten.
        {"\u0130\u0130\u0130\u0130\u0130b", kPalette0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sender.value_or("(absent)"));
        EXPECT_EQ(QLXNotificationHelper::colorForSender(c.sender), c.color);
    }
}

// --- Digests and paths

TEST(QLXNotificationHelperFiles, Md5IsUpperCaseHex) {
    EXPECT_EQ(QLXNotificationHelper::MD5String(""), "D41D8CD98F00B204E9800998ECF8427E");
    EXPECT_EQ(QLXNotificationHelper::MD5String("abc"), "900150983CD24FB0D6963F7D28E17F72");
    EXPECT_EQ(QLXNotificationHelper::MD5String("The quick brown fox jumps over the lazy dog"),
              "9E107D9D372BB6826BD81D3542A419D6");
    EXPECT_EQ(QLXNotificationHelper::MD5String(std::string("abc\0def", 7)),
              "900150983CD24FB0D6963F7D28E17F72");
}

TEST(QLXNotificationHelperFiles, AvatarIsNamedByTheDigestOfTheAddress) {
    TestEnv env = makeEnv();
    auto container = env.home() / "groups" / "group.ios.vontu";
    EXPECT_EQ(QLXNotificationHelper::sharedDirectoryPath(), container);
    EXPECT_EQ(QLXNotificationHelper::imagePathForSender("jane@example.com"),
              container / "Avatars" / "18405C77ABB15C778D2EF31F8564DC43.png");
    EXPECT_NE(QLXNotificationHelper::imagePathForSender("Jane@example.com"),
              QLXNotificationHelper::imagePathForSender("jane@example.com"));
    EXPECT_EQ(QLXNotificationHelper::imagePathForSender(std::nullopt), std::nullopt);
}

// --- The drawn badge

TEST(QLXNotificationHelperBadge, RoundBadgeInTheNamesColourWithWhiteInitials) {
    TestEnv env = makeEnv();
    // The colour comes from the name ("Ab": 1), not from the address ("zzz": 5).
    auto png = QLXNotificationHelper::initialForSenderName("Ab", "zzz@example.com");
    ASSERT_TRUE(png.has_value());
    auto pixels = PngPixels::decode(*png);
    ASSERT_TRUE(pixels.has_value());
    ASSERT_EQ(pixels->width(), 96);
    ASSERT_EQ(pixels->height(), 96);

    for (auto [x, y] : {std::pair{0, 0}, {95, 0}, {0, 95}, {95, 95}, {8, 8}}) {
        EXPECT_EQ(pixels->at(x, y).alpha, 0) << "outside the circle at " << x << "," << y;
    }
    for (auto [x, y] : {std::pair{48, 6}, {48, 90}, {6, 48}, {90, 48}}) {
        EXPECT_TRUE(showsColor(pixels->at(x, y), kPalette1)) << x << "," << y;
    }
    int white = 0;
    for (int y = 30; y < 66; ++y) {
        for (int x = 14; x < 82; ++x) white += isWhite(pixels->at(x, y)) ? 1 : 0;
    }
    EXPECT_GT(white, 20) << "the initials are drawn in white in the middle";
}

TEST(QLXNotificationHelperBadge, ThreadsDrawingAtOnceGetTheSamePicture) {
    TestEnv env = makeEnv();
    auto expected = QLXNotificationHelper::initialForSenderName("Jane Doe", "jane@example.com");
    ASSERT_TRUE(expected.has_value());
    std::vector<std::optional<Bytes>> drawn(4);
    std::vector<std::thread> threads;
    for (auto& picture : drawn) {
        threads.emplace_back([&picture] {
            picture = QLXNotificationHelper::initialForSenderName("Jane Doe", "jane@example.com");
        });
    }
    for (auto& thread : threads) thread.join();
    for (const auto& picture : drawn) EXPECT_EQ(picture, expected);
}

TEST(QLXNotificationHelperBadge, NoBadgeWithoutInitials) {
    TestEnv env = makeEnv();
    EXPECT_EQ(QLXNotificationHelper::initialForSenderName("", "a"), std::nullopt);
    EXPECT_EQ(QLXNotificationHelper::initialForSenderName("42", std::nullopt), std::nullopt);
}

// --- Persons

TEST(QLXNotificationHelperPerson, UsesTheCachedAvatarBytesAsTheyAre) {
    TestEnv env = makeEnv();
    auto path = avatarPath("jane@example.com");
    ASSERT_TRUE(env.env().createDirectories(path.parent_path()).has_value());
    const Bytes cached = platform::toBytes("not a picture at all");
    ASSERT_TRUE(env.env().writeFile(path, cached).has_value());

    auto person = QLXNotificationHelper::createPerson("Jane Doe", "jane@example.com");
    ASSERT_TRUE(person.has_value());
    EXPECT_EQ(person->handle.value, "jane@example.com");
    EXPECT_EQ(person->handle.type, platform::PersonHandleType::emailAddress);
    EXPECT_EQ(person->nickname, "Jane Doe");
    EXPECT_EQ(person->displayName, "Jane Doe");
    EXPECT_EQ(person->contactIdentifier, std::nullopt);
    EXPECT_EQ(person->customIdentifier, "9E26471D35A78862C17E467D87CDDEDF");
    ASSERT_TRUE(person->image.has_value());
    EXPECT_EQ(person->image->data, cached);
}

TEST(QLXNotificationHelperPerson, DrawsABadgeWhenNothingIsCached) {
    TestEnv env = makeEnv();
    auto person = QLXNotificationHelper::createPerson("Jane Doe", "jane@example.com");
    ASSERT_TRUE(person.has_value());
    ASSERT_TRUE(person->image.has_value());
    EXPECT_EQ(person->image->data,
              QLXNotificationHelper::initialForSenderName("Jane Doe", "jane@example.com"));
    auto pixels = PngPixels::decode(person->image->data);
    ASSERT_TRUE(pixels.has_value());
    EXPECT_EQ(pixels->width(), 96);
}

TEST(QLXNotificationHelperPerson, AbsentWithoutNameAddressOrPicture) {
    TestEnv env = makeEnv();
    EXPECT_EQ(QLXNotificationHelper::createPerson(std::nullopt, "jane@example.com"), std::nullopt);
    EXPECT_EQ(QLXNotificationHelper::createPerson("Jane", std::nullopt), std::nullopt);
    EXPECT_EQ(QLXNotificationHelper::createPerson("", "a"), std::nullopt);

    // A cached entry that cannot be read gives no picture, and no badge is drawn instead.
    auto path = avatarPath("jane@example.com");
    ASSERT_TRUE(env.env().createDirectories(path).has_value());
    EXPECT_EQ(QLXNotificationHelper::createPerson("Jane Doe", "jane@example.com"), std::nullopt);
}

// --- The communication notification

platform::NotificationContent mailContent() {
    platform::NotificationContent content;
    content.title = "Jane Doe";
    content.body = "Lunch tomorrow?";
    content.categoryIdentifier = "NewMail";
    return content;
}

TEST(QLXNotificationHelperContent, UnchangedBeforeIos15) {
    for (const char* version : {"12.4", "14.0", "14.9"}) {
        SCOPED_TRACE(version);
        TestEnv env = makeEnv(version);
        auto result = QLXNotificationHelper::modifyNotificationContentForCommunicationNotification(
            mailContent(), "Jane Doe", "jane@example.com", {});
        EXPECT_EQ(result, mailContent());
    }
}

TEST(QLXNotificationHelperContent, CarriesTheSenderAndPutsTheSubtitleBeforeTheBody) {
    for (const char* version : {"15.0", "17.0"}) {
        SCOPED_TRACE(version);
        TestEnv env = makeEnv(version);
        auto recipients = QLXNotificationHelper::recipientsForMail("Bob <bob@example.com>");
        auto result = QLXNotificationHelper::modifyNotificationContentForCommunicationNotification(
            mailContent(), "Jane Doe", "jane@example.com", recipients);
        ASSERT_TRUE(result.has_value());
        ASSERT_TRUE(result->communication.has_value());
        EXPECT_EQ(result->communication->sender,
                  QLXNotificationHelper::createPerson("Jane Doe", "jane@example.com"));
        EXPECT_EQ(result->body, " \u2022 Lunch tomorrow?") << "an empty subtitle counts";
        EXPECT_EQ(result->title, "Jane Doe");

        auto withSubtitle = mailContent();
        withSubtitle.subtitle = "Re: Plans";
        result = QLXNotificationHelper::modifyNotificationContentForCommunicationNotification(
            withSubtitle, "Jane Doe", "jane@example.com", {});
        ASSERT_TRUE(result.has_value());
        EXPECT_EQ(result->body, "Re: Plans \u2022 Lunch tomorrow?");
    }
}

TEST(QLXNotificationHelperContent, UnchangedWithoutASenderPerson) {
    TestEnv env = makeEnv();
    auto result = QLXNotificationHelper::modifyNotificationContentForCommunicationNotification(
        mailContent(), "", "a", {});
    EXPECT_EQ(result, mailContent());
}

}  // namespace
}  // namespace vontu::testing
