// Sender details of a new-mail push: address entries, initials, badge colours and drawing, and
// the communication content. (Cached avatars and system versions are checked through vontu-nse.)

#include <gtest/gtest.h>

#include <cairo.h>

#include <cmath>
#include <cstring>
#include <thread>

#include "extension/QLXNotificationHelper.hpp"
#include "extension/SenderInitials.hpp"
#include "tests/support/TestEnv.hpp"

namespace vontu::testing {
namespace {

using extension::QLXNotificationHelper;
using platform::Rgba;
using Text = std::optional<std::string>;

constexpr Rgba kPalette0{0.498, 0.859, 1.0, 1.0};
constexpr Rgba kPalette1{0.0, 0.478, 1.0, 1.0};
constexpr Rgba kPalette5{1.0, 0.522, 0.106, 1.0};
constexpr Rgba kPalette9{0.522, 0.078, 0.294, 1.0};

// A pixel of a decoded PNG: 0...255, not premultiplied.
struct Pixel {
    int red, green, blue, alpha;
    bool shows(const Rgba& color) const {  // to within a rounding step or two
        auto near = [](int channel, double fraction) {
            return std::abs(channel - std::lround(fraction * 255)) <= 2;
        };
        return near(red, color.red) && near(green, color.green) && near(blue, color.blue) &&
               near(alpha, color.alpha);
    }
    bool white() const { return alpha == 255 && red >= 250 && green >= 250 && blue >= 250; }
};

// The pixels of a PNG with transparency, decoded with cairo, one row after the other; absent
// when cairo cannot read it.
std::optional<std::vector<Pixel>> decode(const platform::Bytes& png, int side) {
    std::pair<const platform::Bytes*, std::size_t> reader{&png, 0};
    auto read = [](void* closure, unsigned char* data, unsigned length) {
        auto& [bytes, offset] = *static_cast<decltype(reader)*>(closure);
        if (bytes->size() - offset < length) return CAIRO_STATUS_READ_ERROR;
        std::memcpy(data, bytes->data() + offset, length);
        offset += length;
        return CAIRO_STATUS_SUCCESS;
    };
    std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface(
        cairo_image_surface_create_from_png_stream(read, &reader), &cairo_surface_destroy);
    cairo_surface_t* image = surface.get();
    if (cairo_surface_status(image) != CAIRO_STATUS_SUCCESS ||
        cairo_image_surface_get_format(image) != CAIRO_FORMAT_ARGB32 ||
        cairo_image_surface_get_width(image) != side || cairo_image_surface_get_height(image) != side) {
        return std::nullopt;
    }
    cairo_surface_flush(image);
    std::vector<Pixel> pixels;
    for (int y = 0; y < side; ++y) {
        for (int x = 0; x < side; ++x) {
            std::uint32_t word = 0;
            std::memcpy(&word, cairo_image_surface_get_data(image) +
                                   y * cairo_image_surface_get_stride(image) + x * 4, sizeof word);
            const int alpha = static_cast<int>(word >> 24);
            auto channel = [alpha](std::uint32_t value) {
                return alpha == 0 ? 0 : (static_cast<int>(value & 0xFF) * 255 + alpha / 2) / alpha;
            };
            pixels.push_back({channel(word >> 16), channel(word >> 8), channel(word), alpha});
        }
    }
    return pixels;
}

TEST(QLXNotificationHelperParsing, SplitsEntriesAtTheAngleBracket) {
    const struct { Text entry, name, email; } cases[] = {
        {"Jane Doe <jane@example.com>", "Jane Doe ", "jane@example.com"},
        {"jane@example.com", std::nullopt, "jane@example.com"},
        {"jane@example.com>>", std::nullopt, "jane@example.com"},
        {"<jane@example.com>", "", "jane@example.com"},
        {"", std::nullopt, ""},
        {" Jane <jane@example.com> ", " Jane ", "jane@example.com "},
        {"A <b> <c>", "A ", "c"},
        {"Jane >Doe< x", "Jane >Doe", " x"},
        {"Иван Петров <ivan@example.ru>", "Иван Петров ", "ivan@example.ru"},
        {std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.entry.value_or("(absent)"));
        EXPECT_EQ(QLXNotificationHelper::nameFromString(c.entry), c.name);
        EXPECT_EQ(QLXNotificationHelper::emailFromString(c.entry), c.email);
    }
}

TEST(QLXNotificationHelperParsing, RecipientsAreTheEntriesWithADisplayName) {
    TestEnv env;
    const struct {
        Text participants;
        std::vector<std::pair<std::string, std::string>> persons;  // display name, address
    } cases[] = {
        {"Ann <ann@example.com>, Bob  <bob@example.com>\r\n",
         {{"Ann ", "ann@example.com"}, {" Bob  ", "bob@example.com"}}},
        {"ann@example.com, Bob <bob@example.com>", {{" Bob ", "bob@example.com"}}},
        {"Ann <ann@example.com>,,Bob <bob@example.com>,",
         {{"Ann ", "ann@example.com"}, {"Bob ", "bob@example.com"}}},
        {"Ann\r\n Lee <ann@exa\nmple.com>", {{"Ann Lee ", "ann@example.com"}}},
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

TEST(QLXNotificationHelperInitials, FirstLettersOfTheFirstTwoWordsElseOfTheAddress) {
    const struct { Text name, mailbox; std::string initials; } cases[] = {
        {"jane doe", "jane@example.com", "JD"},
        {"Jane Mary Doe", "jane@example.com", "JM"},
        {"1st jane doe", "x@example.com", "JD"},
        {"  jane   doe ", "x@example.com", "JD"},
        {"jane\tdoe", "x@example.com", "J"},
        {"élodie ßmith", "x@example.com", "ÉSS"},
        {"דוד כהן", "david@example.co.il", "דכ"},
        {"李 小龙", "li@example.cn", "李小"},
        {"😀 smile face", "x@example.com", "SF"},
        {"\u0661abc def", "x@example.com", "D"},  // an Arabic-Indic digit is no letter
        {"", "Ab@example.com", "A"},                // the address keeps its case
        {"123 !!", "zed@example.com", "z"},
        {std::nullopt, "jo", "j"},
        {"", "😀x", "😀"},
        {"", "a", ""},
        {std::nullopt, std::nullopt, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name.value_or("(absent)") + " / " + c.mailbox.value_or("(absent)"));
        EXPECT_EQ(extension::senderInitials(c.name, c.mailbox), c.initials);
    }
}

TEST(QLXNotificationHelperInitials, ColourComesFromTheFirstTenLowerCaseLetters) {
    const struct { Text sender; Rgba color; } cases[] = {
        {"Ab", kPalette1},           // 0 + 1
        {"ZZZ", kPalette5},          // lower-cased, 75 mod 10
        {"12 -!", kPalette0},        // no letters
        {std::nullopt, kPalette0},
        {"aaaaaaaaab", kPalette1},   // b is the tenth character
        {"aaaaaaaaaab", kPalette0},  // b is the eleventh and does not count
        {"éa b", kPalette1},         // é is not in a to z
        {"j", kPalette9},
        // İ lower-cases to two units, so the b is pushed out of the first ten.
        {"\u0130\u0130\u0130\u0130\u0130b", kPalette0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sender.value_or("(absent)"));
        EXPECT_EQ(QLXNotificationHelper::colorForSender(c.sender), c.color);
    }
}

TEST(QLXNotificationHelperFiles, AvatarsAreNamedByTheUpperCaseDigestOfTheExactAddress) {
    TestEnv env;
    EXPECT_EQ(QLXNotificationHelper::MD5String(""), "D41D8CD98F00B204E9800998ECF8427E");
    // The digest is of the text up to its first NUL.
    EXPECT_EQ(QLXNotificationHelper::MD5String(std::string("abc\0def", 7)),
              "900150983CD24FB0D6963F7D28E17F72");
    EXPECT_EQ(QLXNotificationHelper::imagePathForSender("jane@example.com"),
              env.home() / "groups/group.ios.vontu/Avatars/18405C77ABB15C778D2EF31F8564DC43.png");
    EXPECT_NE(QLXNotificationHelper::imagePathForSender("Jane@example.com"),
              QLXNotificationHelper::imagePathForSender("jane@example.com"));
    EXPECT_EQ(QLXNotificationHelper::imagePathForSender(std::nullopt), std::nullopt);
}

TEST(QLXNotificationHelperBadge, RoundBadgeInTheNamesColourWithWhiteInitialsInTheMiddle) {
    TestEnv env;
    // The colour comes from the name ("Ab": 1), not from the address ("zzz": 5).
    auto png = QLXNotificationHelper::initialForSenderName("Ab", "zzz@example.com");
    ASSERT_TRUE(png.has_value());
    auto pixels = decode(*png, 96);
    ASSERT_TRUE(pixels.has_value()) << "a 96 by 96 PNG";
    auto at = [&](int x, int y) { return (*pixels)[static_cast<std::size_t>(y * 96 + x)]; };
    for (auto [x, y] : {std::pair{0, 0}, {95, 0}, {0, 95}, {95, 95}, {8, 8}}) {
        EXPECT_EQ(at(x, y).alpha, 0) << "outside the circle at " << x << "," << y;
    }
    for (auto [x, y] : {std::pair{48, 6}, {48, 90}, {6, 48}, {90, 48}, {20, 20}}) {
        EXPECT_TRUE(at(x, y).shows(kPalette1)) << x << "," << y;
    }
    int left = 96, right = -1, top = 96, bottom = -1;
    for (int y = 0; y < 96; ++y) {
        for (int x = 0; x < 96; ++x) {
            if (!at(x, y).white()) continue;
            left = std::min(left, x), right = std::max(right, x);
            top = std::min(top, y), bottom = std::max(bottom, y);
        }
    }
    ASSERT_GE(right, 0) << "no initials drawn";
    EXPECT_NEAR((left + right) / 2.0, 48, 3);
    EXPECT_NEAR((top + bottom) / 2.0, 48, 8);
    EXPECT_GT(bottom - top, 10) << "the initials are drawn at 28 points";
}

TEST(QLXNotificationHelperBadge, ThreadsDrawingAtOnceGetTheSamePicture) {
    TestEnv env;
    auto expected = QLXNotificationHelper::initialForSenderName("Jane Doe", "jane@example.com");
    ASSERT_TRUE(expected.has_value());
    std::vector<std::optional<platform::Bytes>> drawn(4);
    std::vector<std::thread> threads;
    for (auto& picture : drawn) {
        threads.emplace_back([&picture] {
            picture = QLXNotificationHelper::initialForSenderName("Jane Doe", "jane@example.com");
        });
    }
    for (auto& thread : threads) thread.join();
    for (const auto& picture : drawn) EXPECT_EQ(picture, expected);
}

TEST(QLXNotificationHelperPerson, AnEmailPersonWithADrawnBadgeWhenNothingIsCached) {
    TestEnv env;
    auto person = QLXNotificationHelper::createPerson("Jane Doe", "jane@example.com");
    ASSERT_TRUE(person.has_value());
    EXPECT_EQ(person->handle.value, "jane@example.com");
    EXPECT_EQ(person->handle.type, platform::PersonHandleType::emailAddress);
    EXPECT_EQ(person->nickname, "Jane Doe");
    EXPECT_EQ(person->displayName, "Jane Doe");
    EXPECT_EQ(person->contactIdentifier, std::nullopt);
    EXPECT_EQ(person->customIdentifier, "9E26471D35A78862C17E467D87CDDEDF");
    ASSERT_TRUE(person->image.has_value());
    EXPECT_EQ(person->image->data,
              QLXNotificationHelper::initialForSenderName("Jane Doe", "jane@example.com"));
}

TEST(QLXNotificationHelperPerson, AbsentWithoutNameAddressOrPicture) {
    TestEnv env;
    EXPECT_EQ(QLXNotificationHelper::initialForSenderName("42", std::nullopt), std::nullopt);
    EXPECT_EQ(QLXNotificationHelper::createPerson(std::nullopt, "jane@example.com"), std::nullopt);
    EXPECT_EQ(QLXNotificationHelper::createPerson("Jane", std::nullopt), std::nullopt);
    EXPECT_EQ(QLXNotificationHelper::createPerson("", "a"), std::nullopt);  // no initials
    // A cached entry that cannot be read gives no picture, and no badge is drawn instead.
    auto path = QLXNotificationHelper::imagePathForSender("jane@example.com");
    ASSERT_TRUE(path && env.env().createDirectories(*path).has_value());
    EXPECT_EQ(QLXNotificationHelper::createPerson("Jane Doe", "jane@example.com"), std::nullopt);
}

TEST(QLXNotificationHelperContent, CarriesTheSenderAndPutsTheSubtitleBeforeTheBody) {
    TestEnv env;
    platform::NotificationContent mail;
    mail.title = "Jane Doe";
    mail.body = "Lunch tomorrow?";
    auto modify = [](const platform::NotificationContent& content, const std::string& name,
                     const std::string& address) {
        return QLXNotificationHelper::modifyNotificationContentForCommunicationNotification(
            content, name, address, QLXNotificationHelper::recipientsForMail("Bob <bob@x.com>"));
    };
    auto result = modify(mail, "Jane Doe", "jane@example.com");
    ASSERT_TRUE(result.has_value());
    ASSERT_TRUE(result->communication.has_value());
    EXPECT_EQ(result->communication->sender,
              QLXNotificationHelper::createPerson("Jane Doe", "jane@example.com"));
    EXPECT_EQ(result->title, "Jane Doe");
    EXPECT_EQ(result->body, " \u2022 Lunch tomorrow?") << "an empty subtitle counts";

    mail.subtitle = "Re: Plans";
    result = modify(mail, "Jane Doe", "jane@example.com");
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->body, "Re: Plans \u2022 Lunch tomorrow?");
    // Without a sender person the content is left as it is.
    EXPECT_EQ(modify(mail, "", "a"), mail);
}

}  // namespace
}  // namespace vontu::testing
