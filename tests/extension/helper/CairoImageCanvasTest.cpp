// The module loader that provides the canvas the sender badge is drawn on, and the canvas's
// refusal of empty sizes. (What it draws is checked through the badge.) Then the notification
// banner the module draws, read back from its PNG as a person would look at it.

#include <cairo.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "platform/linux/CairoImageCanvas.hpp"
#include "platform/linux/DrawingLoader.hpp"

namespace vontu::testing {
namespace {

TEST(CairoImageCanvas, RefusesEmptySizes) {
    using platform::linux_host::makeCairoImageCanvas;
    EXPECT_EQ(makeCairoImageCanvas(0, 10), nullptr);
    EXPECT_EQ(makeCairoImageCanvas(10, -1), nullptr);
    EXPECT_NE(makeCairoImageCanvas(1, 1), nullptr);
}

// The module is loaded once per process, so each load is tried in a fresh one.
TEST(DrawingLoaderDeathTest, LoadsTheModuleNamedInTheEnvironmentAndNoCanvasWithoutIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (auto [module, canvas] : {std::pair{"/nonexistent/module.so", false},
                                  std::pair{VONTU_DRAWING_MODULE_PATH, true}}) {
        EXPECT_EXIT(
            {
                setenv(platform::linux_host::kDrawingModuleVariable, module, 1);
                const bool made = platform::linux_host::loadAndMakeImageCanvas(8, 8) != nullptr;
                std::exit(made == canvas ? 0 : 1);
            },
            ::testing::ExitedWithCode(0), "")
            << module;
    }
}

using platform::NotificationPreview;
using Layout = platform::PreviewLayout;
using SurfacePtr = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;

cairo_status_t appendPng(void* closure, const unsigned char* data, unsigned int length) {
    static_cast<platform::Bytes*>(closure)->insert(static_cast<platform::Bytes*>(closure)->end(),
                                                   data, data + length);
    return CAIRO_STATUS_SUCCESS;
}

// A PNG of one colour, as an avatar or attachment.
platform::Bytes solidPng(double red, double green, double blue) {
    SurfacePtr surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 40, 40),
                       &cairo_surface_destroy);
    cairo_t* cr = cairo_create(surface.get());
    cairo_set_source_rgb(cr, red, green, blue);
    cairo_paint(cr);
    cairo_destroy(cr);
    platform::Bytes png;
    cairo_surface_write_to_png_stream(surface.get(), appendPng, &png);
    return png;
}

struct Pixel {
    int red, green, blue, alpha;
    bool near(const Pixel& other) const {
        return std::abs(red - other.red) + std::abs(green - other.green) +
                   std::abs(blue - other.blue) + std::abs(alpha - other.alpha) < 24;
    }
};

// The banner decoded, addressed in points as it was laid out.
class Banner {
public:
    explicit Banner(const NotificationPreview& preview)
        : surface_(nullptr, &cairo_surface_destroy) {
        auto png = platform::linux_host::loadAndDrawNotificationPreview(preview);
        if (!png) return;
        struct Reader {
            const platform::Bytes* bytes;
            std::size_t at = 0;
        } reader{&*png};
        surface_.reset(cairo_image_surface_create_from_png_stream(
            [](void* closure, unsigned char* data, unsigned int length) {
                auto* r = static_cast<Reader*>(closure);
                if (r->bytes->size() - r->at < length) return CAIRO_STATUS_READ_ERROR;
                std::copy_n(r->bytes->data() + r->at, length, data);
                r->at += length;
                return CAIRO_STATUS_SUCCESS;
            },
            &reader));
    }
    bool decoded() const { return cairo_surface_status(surface_.get()) == CAIRO_STATUS_SUCCESS; }
    int pixelWidth() const { return cairo_image_surface_get_width(surface_.get()); }
    int pixelHeight() const { return cairo_image_surface_get_height(surface_.get()); }
    Pixel pixel(int x, int y) const {
        const auto* row = cairo_image_surface_get_data(surface_.get()) +
                          y * cairo_image_surface_get_stride(surface_.get());
        const auto argb = reinterpret_cast<const std::uint32_t*>(row)[x];
        return {int((argb >> 16) & 0xff), int((argb >> 8) & 0xff), int(argb & 0xff),
                int(argb >> 24)};
    }
    Pixel at(double x, double y) const {
        return pixel(int(x * Layout::kScale), int(y * Layout::kScale));
    }

    // The text column's runs of pixel rows with ink (unlike the card): its lines of text, top
    // to bottom, as [first, last] rows.
    std::vector<std::pair<int, int>> inkedRows() const {
        std::vector<std::pair<int, int>> runs;
        for (int y = 0; y < pixelHeight(); ++y) {
            if (inkedColumns({y, y}).second < 0) continue;
            if (!runs.empty() && runs.back().second == y - 1) {
                runs.back().second = y;
            } else {
                runs.push_back({y, y});
            }
        }
        return runs;
    }
    // The first and last inked columns of the text column in the rows; last is -1 for none.
    std::pair<int, int> inkedColumns(std::pair<int, int> rows, int from = 0) const {
        std::pair<int, int> columns{pixelWidth(), -1};
        for (int y = rows.first; y <= rows.second; ++y) {
            for (int x = std::max(from, px(kTextLeft)); x < px(kTextRight); ++x) {
                if (!isInk(pixel(x, y))) continue;
                columns = {std::min(columns.first, x), std::max(columns.second, x)};
            }
        }
        return columns;
    }
    // How many rows of a line have ink in its last few columns: the height of its end.
    int heightOfLineEnd(std::pair<int, int> rows) const {
        const int last = inkedColumns(rows).second;
        int height = 0;
        for (int y = rows.first; y <= rows.second; ++y) {
            height += inkedColumns({y, y}, last - 6).second >= 0 ? 1 : 0;
        }
        return height;
    }

    static constexpr double kTextLeft = Layout::kPadding + Layout::kIconSize + 10;
    static constexpr double kTextRight = Layout::kWidth - Layout::kPadding;

private:
    static int px(double points) { return int(points * Layout::kScale); }
    // Outside the rounded card is transparent, not ink.
    bool isInk(const Pixel& p) const { return p.alpha == 255 && !p.near(card()); }
    Pixel card() const { return pixel(pixelWidth() / 2, 2); }

    SurfacePtr surface_;
};

NotificationPreview preview(std::string title, std::string body) {
    NotificationPreview made;
    made.title = std::move(title);
    made.body = std::move(body);
    return made;
}

constexpr double kIconCentre = Layout::kPadding + Layout::kIconSize / 2;
constexpr double kTextLeft = Banner::kTextLeft;
constexpr double kTextRight = Banner::kTextRight;

TEST(NotificationPreviewDrawing, IsACardAtTwiceTheSizeLightOrDarkWithTheAppIconOrTheAvatar) {
    auto plain = preview("Dana", "Lunch?");
    Banner light(plain);
    ASSERT_TRUE(light.decoded());
    EXPECT_EQ(light.pixelWidth(), int(Layout::kWidth * Layout::kScale));
    // One line each of title and body beside the icon: the icon decides the height.
    EXPECT_EQ(light.pixelHeight(),
              int((2 * Layout::kPadding + Layout::kIconSize) * Layout::kScale));
    EXPECT_EQ(light.pixel(0, 0).alpha, 0) << "rounded corners";
    EXPECT_GT(light.at(Layout::kWidth / 2, 2).red, 200);
    plain.style = platform::PreviewStyle::dark;
    Banner dark(plain);
    EXPECT_LT(dark.at(Layout::kWidth / 2, 2).red, 80);

    const Pixel red{255, 0, 0, 255};
    const Pixel appIcon = light.at(kIconCentre, Layout::kPadding + 3);
    EXPECT_GT(appIcon.blue, 200);
    EXPECT_FALSE(light.at(kIconCentre - 8, kIconCentre).near(red));

    auto communication = preview("Dana", "Lunch?");
    communication.senderAvatar = solidPng(1, 0, 0);
    Banner withAvatar(communication);
    EXPECT_TRUE(withAvatar.at(kIconCentre - 8, kIconCentre).near(red));
    EXPECT_TRUE(withAvatar.at(kIconCentre, Layout::kPadding + 2).near(red));
    // The app icon sits on the avatar's lower right corner.
    const double corner = Layout::kPadding + Layout::kIconSize - Layout::kCornerIconSize / 2 + 3;
    EXPECT_TRUE(withAvatar.at(corner, corner - 5).near(appIcon));

    // An avatar that is not a PNG leaves the app icon.
    communication.senderAvatar = platform::Bytes{'n', 'o', 't'};
    EXPECT_TRUE(Banner(communication).at(kIconCentre, Layout::kPadding + 3).near(appIcon));
}

TEST(NotificationPreviewDrawing, ShowsTheFirstAttachmentAsAThumbnailOnTheRight) {
    const double thumbnailX = kTextRight - Layout::kThumbnailSize / 2;
    const double thumbnailY = Layout::kPadding + 20 + Layout::kThumbnailSize / 2;
    auto withImage = preview("Photos", "Holiday");
    withImage.thumbnail = solidPng(0, 1, 0);
    Banner shown(withImage);
    EXPECT_TRUE(shown.at(thumbnailX, thumbnailY).near(Pixel{0, 255, 0, 255}));
    EXPECT_GE(shown.pixelHeight(), int((thumbnailY + Layout::kThumbnailSize / 2) * Layout::kScale));

    Banner without(preview("Photos", "Holiday"));
    EXPECT_FALSE(without.at(thumbnailX, thumbnailY - 10).near(Pixel{0, 255, 0, 255}));
    EXPECT_TRUE(without.at(thumbnailX, thumbnailY - 10).near(without.at(Layout::kWidth / 2, 2)));
}

// Words of capitals: every line ends in a capital's full height, but the last line kept of a
// body that is too long ends in "...", dots on the baseline.
std::string capitalWords(int count) {
    std::string words;
    for (int i = 0; i < count; ++i) words += "MMMMM ";
    return words;
}

TEST(NotificationPreviewDrawing, CutsALongBodyAfterFourLinesWithAnEllipsis) {
    Banner cut(preview("T", capitalWords(80)));
    auto lines = cut.inkedRows();
    ASSERT_EQ(lines.size(), 1u + Layout::kMaxBodyLines);
    const int fullLineEnd = cut.heightOfLineEnd(lines[3]);
    EXPECT_LT(cut.heightOfLineEnd(lines[4]), fullLineEnd / 2);

    Banner fits(preview("T", capitalWords(6)));
    auto fitting = fits.inkedRows();
    ASSERT_GE(fitting.size(), 3u);
    ASSERT_LT(fitting.size(), 1u + Layout::kMaxBodyLines);
    EXPECT_EQ(fits.heightOfLineEnd(fitting.back()), fullLineEnd);
}

TEST(NotificationPreviewDrawing, AlignsRightToLeftTextRightAndOtherTextLeft) {
    const char* hebrew = "\u05e9\u05dc\u05d5\u05dd \u05e2\u05d5\u05dc\u05dd";
    const char* emojiFirst = "\U0001F35C noodles \u05e9\u05dc\u05d5\u05dd";
    for (auto [body, rightToLeft] : {std::pair{hebrew, true}, std::pair{"hello world", false},
                                     std::pair{emojiFirst, false}}) {
        Banner banner(preview("T", body));
        auto lines = banner.inkedRows();
        ASSERT_EQ(lines.size(), 2u) << body;
        auto [first, last] = banner.inkedColumns(lines[1]);
        const double fromLeft = first / Layout::kScale - kTextLeft;
        const double fromRight = kTextRight - last / Layout::kScale;
        EXPECT_EQ(fromRight < fromLeft, rightToLeft) << body << " " << fromLeft << " " << fromRight;
        EXPECT_LT(std::min(fromLeft, fromRight), 3) << body;
    }
}

}  // namespace
}  // namespace vontu::testing
