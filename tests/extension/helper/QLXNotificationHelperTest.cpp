// Sender details of a new-mail push. (Cached avatars and their names are checked through vontu-nse.)

#include <gtest/gtest.h>

#include <cairo.h>

#include <array>
#include <cmath>
#include <iterator>
#include <cstring>
#include <fstream>
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

// Whether an opaque ARGB pixel shows color, to within a rounding step or two.
bool shows(std::uint32_t pixel, const Rgba& color) {
    auto near = [pixel](int shift, double fraction) {
        return std::abs(static_cast<long>((pixel >> shift) & 0xFF) - std::lround(fraction * 255)) <= 2;
    };
    return near(24, color.alpha) && near(16, color.red) && near(8, color.green) && near(0, color.blue);
}

TEST(QLXNotificationHelperParsing, SplitsEntriesAtTheAngleBracket) {
    const struct { Text entry, name, email; } cases[] = {
        {"Jane Doe <jane@example.com>", "Jane Doe ", "jane@example.com"},
        {"jane@example.com>>", std::nullopt, "jane@example.com"},
        {"A <b> <c>", "A ", "c"},
        {std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.entry.value_or("(absent)"));
        EXPECT_EQ(QLXNotificationHelper::nameFromString(c.entry), c.name);
        EXPECT_EQ(QLXNotificationHelper::emailFromString(c.entry), c.email);
    }
}

TEST(QLXNotificationHelperParsing, RecipientsAreTheEntriesWithADisplayName) {
    auto persons = QLXNotificationHelper::recipientsForMail(
        "Ann\r\n Lee <ann@exa\nmple.com>,,eve@example.com, Bob  <bob@example.com>\r\n");
    ASSERT_EQ(persons.size(), 2u);
    EXPECT_EQ(persons[0].displayName, "Ann Lee ");
    EXPECT_EQ(persons[0].handle.value, "ann@example.com");
}

TEST(QLXNotificationHelperInitials, FirstLettersOfTheFirstTwoWordsElseOfTheAddress) {
    const struct { Text name, mailbox; std::string initials; } cases[] = {
        {"jane\tann mary doe", "jane@example.com", "JM"},  // only spaces separate words
        // Words starting with no letter are skipped: an Arabic-Indic digit, an emoji.
        {"  \u0661st 😀 jane   doe ", "x@example.com", "JD"},
        {"élodie ßmith", "x@example.com", "ÉSS"},
        {"\u0390ων \u1E96a", "x@example.com", "\u0399\u0308\u0301H\u0331"},  // full upper case
        {"", "Ab@example.com", "A"},  // the address keeps its case
    };
    for (const auto& c : cases) {
        EXPECT_EQ(extension::senderInitials(c.name, c.mailbox), c.initials) << c.name.value_or("(absent)");
    }
}

TEST(QLXNotificationHelperInitials, ColourComesFromTheFirstTenLowerCaseLetters) {
    const struct { Text sender; Rgba color; } cases[] = {
        {"ZZZ", kPalette5},          // lower-cased, 75 mod 10
        {"é1 -b", kPalette1},        // é is not in a to z
        {std::nullopt, kPalette0},
        {"aaaaaaaaaab", kPalette0},  // b is the eleventh and does not count
        // İ lower-cases to two units, so the b is pushed out of the first ten.
        {"\u0130\u0130\u0130\u0130\u0130b", kPalette0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(QLXNotificationHelper::colorForSender(c.sender), c.color) << c.sender.value_or("(absent)");
    }
}

// A PNG decoded to premultiplied ARGB words, row by row (opaque when it has no alpha); empty when
// it is not a 96-point square.
std::vector<std::uint32_t> decode(const platform::Bytes& png) {
    struct Reader { const platform::Bytes& png; std::size_t at = 0; } reader{png};
    const std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> image(
        cairo_image_surface_create_from_png_stream(
            [](void* closure, unsigned char* data, unsigned int length) {
                auto& r = *static_cast<Reader*>(closure);
                if (r.png.size() - r.at < length) return CAIRO_STATUS_READ_ERROR;
                std::memcpy(data, r.png.data() + r.at, length);
                r.at += length;
                return CAIRO_STATUS_SUCCESS;
            },
            &reader),
        &cairo_surface_destroy);
    if (cairo_surface_status(image.get()) != CAIRO_STATUS_SUCCESS || cairo_image_surface_get_width(image.get()) != 96 || cairo_image_surface_get_height(image.get()) != 96) {
        return {};
    }
    std::vector<std::uint32_t> pixels(96 * 96);
    for (int y = 0; y < 96; ++y) {
        std::memcpy(&pixels[y * 96], cairo_image_surface_get_data(image.get()) + y * cairo_image_surface_get_stride(image.get()), 96 * 4);
    }
    return pixels;
}

// Whether a pixel of a badge in a colour with little red (palettes 0 and 1) is part of its white
// initials, edges included.
bool inked(std::uint32_t pixel) { return ((pixel >> 16) & 0xFF) >= 0xA0; }

// The bounds of the initials: left, top, right, bottom; right is -1 when nothing is drawn.
std::array<int, 4> whiteBounds(const std::vector<std::uint32_t>& pixels) {
    std::array<int, 4> bounds{96, 96, -1, -1};
    for (int i = 0; i < std::ssize(pixels); ++i) {
        if (!inked(pixels[i])) continue;
        const int x = i % 96, y = i / 96;
        bounds = {std::min(bounds[0], x), std::min(bounds[1], y), std::max(bounds[2], x), std::max(bounds[3], y)};
    }
    return bounds;
}

TEST(QLXNotificationHelperBadge, RoundBadgeInTheNamesColourWithWhiteInitialsInTheMiddle) {
    // The colour comes from the name ("Ab": 1), not from the address ("zzz": 5).
    auto png = QLXNotificationHelper::initialForSenderName("Ab", "zzz@example.com");
    ASSERT_TRUE(png.has_value());
    const auto pixels = decode(*png);
    ASSERT_FALSE(pixels.empty());
    auto at = [&](int x, int y) { return pixels[y * 96 + x]; };
    for (auto [x, y] : {std::pair{0, 0}, {95, 95}, {8, 8}}) EXPECT_EQ(at(x, y) >> 24, 0u) << "outside at " << x << "," << y;
    for (auto [x, y] : {std::pair{48, 6}, {90, 48}, {20, 20}}) EXPECT_TRUE(shows(at(x, y), kPalette1)) << x << "," << y;
    const auto [left, top, right, bottom] = whiteBounds(pixels);
    ASSERT_GE(right, 0) << "no initials drawn";
    EXPECT_NEAR((left + right) / 2.0, 48, 3);
    EXPECT_NEAR((top + bottom) / 2.0, 48, 8);
    EXPECT_GT(bottom - top, 10) << "the initials are drawn at 28 points";
}

// Latin initials keep the pictures drawn before the badge had a font configuration of its own.
TEST(QLXNotificationHelperBadge, LatinInitialsDrawExactlyAsBefore) {
    const struct { std::string name, picture; } cases[] = {
        {"Jane Doe", "JD"}, {"élodie ßmith", "ESS"}, {"Quentin Wyatt", "QW"}, {"", "a"}, {"Mo Ogg", "MO"}};
    for (const auto& c : cases) {
        std::ifstream file(std::string(VONTU_BADGE_PICTURES) + "/" + c.picture + ".png", std::ios::binary);
        const platform::Bytes before{std::istreambuf_iterator<char>(file), {}};
        const auto png = QLXNotificationHelper::initialForSenderName(c.name, c.picture + "@example.com");
        ASSERT_TRUE(png.has_value());
        const auto pixels = decode(*png);
        EXPECT_TRUE(!pixels.empty() && pixels == decode(before)) << c.picture;
    }
}

// An outline on all four sides of the initials: how a code point no font covers is drawn.
bool isCodePointBox(const std::vector<std::uint32_t>& pixels) {
    const auto [left, top, right, bottom] = whiteBounds(pixels);
    if (right < left + 4 || bottom < top + 4) return false;
    auto line = [&](int x0, int y0, int dx, int dy, int count) {
        int ink = 0;
        for (int i = 0; i < count; ++i) ink += inked(pixels[(y0 + i * dy) * 96 + x0 + i * dx]) ? 1 : 0;
        return ink * 10 >= count * 8;
    };
    const int width = right - left + 1, height = bottom - top + 1;
    return line(left, top, 0, 1, height) && line(right, top, 0, 1, height) && line(left, top, 1, 0, width) &&
           line(left, bottom, 1, 0, width);
}

TEST(QLXNotificationHelperBadge, InitialsInOtherScriptsDrawAsLettersNotCodePointBoxes) {
    // What the drawing stack draws for a code point that no font has: the box to tell apart.
    auto canvas = platform::Env::current().newImageCanvas(96, 96);
    ASSERT_NE(canvas, nullptr);
    canvas->fillRect({0, 0, 96, 96}, kPalette0);
    canvas->drawText("\u0378", {14, 30, 68, 68}, {28, platform::FontWeight::medium}, {1, 1, 1, 1}, platform::TextAlignment::center);
    auto box = canvas->pngRepresentation();
    ASSERT_TRUE(box.has_value());
    ASSERT_TRUE(isCodePointBox(decode(*box)));

    for (const char* name : {"王小明", "\u0905\u092E\u093F\u0924", "\u0E2A\u0E21\u0E0A\u0E32\u0E22", "\u05E9\u05E8\u05D4 \u05DC\u05D5\u05D9",
                             "\u0645\u062D\u0645\u062F", "\u10D2\u10D8\u10DD\u10E0\u10D2\u10D8", "\u1200\u12ED\u120C", "김민준"}) {
        const auto png = QLXNotificationHelper::initialForSenderName(name, "x@example.com");
        ASSERT_TRUE(png.has_value());
        const auto pixels = decode(*png);
        EXPECT_GE(whiteBounds(pixels)[2], 0) << name << ": nothing drawn";
        EXPECT_FALSE(isCodePointBox(pixels)) << name;
    }
}

TEST(QLXNotificationHelperBadge, ThreadsDrawingAtOnceGetTheSamePicture) {
    auto draw = [] { return QLXNotificationHelper::initialForSenderName("Jane", "j@example.com"); };
    const auto expected = draw();
    std::vector<std::optional<platform::Bytes>> drawn(4);
    std::vector<std::thread> threads;
    for (auto& picture : drawn) threads.emplace_back([&picture, &draw] { picture = draw(); });
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(expected.has_value());
    for (const auto& picture : drawn) EXPECT_EQ(picture, expected);
}

TEST(QLXNotificationHelperPerson, AnEmailPersonWithADrawnBadgeWhenNothingIsCachedElseAbsent) {
    TestEnv env;
    auto person = QLXNotificationHelper::createPerson("Jane Doe", "jane@example.com");
    ASSERT_TRUE(person.has_value());
    EXPECT_EQ(person->handle.type, platform::PersonHandleType::emailAddress);
    EXPECT_EQ(person->nickname, "Jane Doe");
    EXPECT_EQ(QLXNotificationHelper::createPerson(std::nullopt, "jane@example.com"), std::nullopt);
    EXPECT_EQ(QLXNotificationHelper::createPerson("Jane", std::nullopt), std::nullopt);
    EXPECT_EQ(QLXNotificationHelper::createPerson("", "a"), std::nullopt);  // no initials
    // A cached entry that cannot be read counts as none: the badge is drawn.
    // Avatars are named by the digest of the address up to its first NUL.
    EXPECT_EQ(QLXNotificationHelper::MD5String(std::string("abc\0def", 7)), "900150983CD24FB0D6963F7D28E17F72");
    auto path = QLXNotificationHelper::imagePathForSender("jane@example.com");
    ASSERT_TRUE(path && env.env().createDirectories(*path).has_value());
    EXPECT_EQ(QLXNotificationHelper::createPerson("Jane Doe", "jane@example.com"), person);
}

TEST(QLXNotificationHelperContent, CarriesTheSenderAndPutsTheSubtitleBeforeTheBody) {
    TestEnv env;
    platform::NotificationContent mail;
    mail.title = "Jane Doe";
    mail.body = "Lunch tomorrow?";
    auto modify = [&mail](const std::string& name, const std::string& address) {
        return QLXNotificationHelper::modifyNotificationContentForCommunicationNotification(
            mail, name, address, QLXNotificationHelper::recipientsForMail("Bob <bob@x.com>"));
    };
    auto result = modify("Jane Doe", "jane@example.com");
    ASSERT_TRUE(result.has_value() && result->communication.has_value());
    EXPECT_EQ(result->communication->sender, QLXNotificationHelper::createPerson("Jane Doe", "jane@example.com"));
    EXPECT_EQ(result->body, " \u2022 Lunch tomorrow?") << "an empty subtitle counts";
    mail.subtitle = "Re: Plans";
    EXPECT_EQ(modify("Jane Doe", "jane@example.com").value_or(mail).body, "Re: Plans \u2022 Lunch tomorrow?");
    EXPECT_EQ(modify("", "a"), mail);  // without a sender person the content is left as it is
}

}  // namespace
}  // namespace vontu::testing
