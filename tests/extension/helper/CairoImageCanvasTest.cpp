#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "platform/linux/CairoImageCanvas.hpp"
#include "platform/linux/DrawingLoader.hpp"
#include "tests/extension/helper/PngPixels.hpp"

namespace vontu::testing {
namespace {

using platform::Font;
using platform::FontWeight;
using platform::Rect;
using platform::Rgba;
using platform::TextAlignment;
using platform::linux_host::makeCairoImageCanvas;

constexpr Rgba kBlue{0.0, 0.478, 1.0, 1.0};
constexpr Rgba kWhite{1, 1, 1, 1};

PngPixels render(platform::ImageCanvas& canvas) {
    auto png = canvas.pngRepresentation();
    EXPECT_TRUE(png.has_value());
    auto pixels = PngPixels::decode(png.value_or(platform::Bytes{}));
    EXPECT_TRUE(pixels.has_value());
    return pixels.value_or(PngPixels{});
}

TEST(CairoImageCanvas, StartsTransparentAndEncodesAsPng) {
    auto canvas = makeCairoImageCanvas(40, 30);
    ASSERT_NE(canvas, nullptr);
    auto pixels = render(*canvas);
    ASSERT_EQ(pixels.width(), 40);
    ASSERT_EQ(pixels.height(), 30);
    for (int y = 0; y < 30; ++y) {
        for (int x = 0; x < 40; ++x) ASSERT_EQ(pixels.at(x, y).alpha, 0) << x << "," << y;
    }
}

TEST(CairoImageCanvas, RefusesEmptySizes) {
    EXPECT_EQ(makeCairoImageCanvas(0, 10), nullptr);
    EXPECT_EQ(makeCairoImageCanvas(10, -1), nullptr);
}

TEST(CairoImageCanvas, RoundedClipWithHalfTheSideIsACircle) {
    auto canvas = makeCairoImageCanvas(96, 96);
    ASSERT_NE(canvas, nullptr);
    canvas->clipToRoundedRect({0, 0, 96, 96}, 48);
    canvas->fillRect({0, 0, 96, 96}, kBlue);
    auto pixels = render(*canvas);

    for (auto [x, y] : {std::pair{0, 0}, {95, 0}, {0, 95}, {95, 95}, {10, 10}, {85, 85}}) {
        EXPECT_EQ(pixels.at(x, y).alpha, 0) << "outside the circle at " << x << "," << y;
    }
    for (auto [x, y] : {std::pair{48, 48}, {48, 2}, {2, 48}, {93, 48}, {48, 93}, {20, 20}}) {
        EXPECT_TRUE(showsColor(pixels.at(x, y), kBlue)) << "inside the circle at " << x << ","
                                                         << y;
    }
}

TEST(CairoImageCanvas, SmallerCornerRadiusKeepsTheEdgesStraight) {
    auto canvas = makeCairoImageCanvas(50, 50);
    ASSERT_NE(canvas, nullptr);
    canvas->clipToRoundedRect({5, 5, 40, 40}, 8);
    canvas->fillRect({0, 0, 50, 50}, kBlue);
    auto pixels = render(*canvas);
    EXPECT_EQ(pixels.at(5, 5).alpha, 0);                // cut corner
    EXPECT_EQ(pixels.at(3, 25).alpha, 0);               // outside the rectangle
    EXPECT_TRUE(showsColor(pixels.at(5, 25), kBlue));   // straight left edge
    EXPECT_TRUE(showsColor(pixels.at(25, 44), kBlue));  // straight bottom edge
}

TEST(CairoImageCanvas, LineHeightFollowsTheFontSize) {
    auto canvas = makeCairoImageCanvas(10, 10);
    ASSERT_NE(canvas, nullptr);
    double at28 = canvas->lineHeight(Font{28, FontWeight::medium});
    double at14 = canvas->lineHeight(Font{14, FontWeight::medium});
    // Ascent plus descent of a Latin text face lies between 1.1 and 1.4 times its size.
    EXPECT_GT(at28, 28 * 1.1);
    EXPECT_LT(at28, 28 * 1.4);
    EXPECT_NEAR(at28, 2 * at14, 0.5);
}

struct InkBox {
    int left = 1 << 20, top = 1 << 20, right = -1, bottom = -1;
    bool empty() const { return right < 0; }
};

InkBox whiteInk(const PngPixels& pixels) {
    InkBox box;
    for (int y = 0; y < pixels.height(); ++y) {
        for (int x = 0; x < pixels.width(); ++x) {
            if (pixels.at(x, y).alpha == 0 || pixels.at(x, y).red < 128) continue;
            box.left = std::min(box.left, x);
            box.right = std::max(box.right, x);
            box.top = std::min(box.top, y);
            box.bottom = std::max(box.bottom, y);
        }
    }
    return box;
}

TEST(CairoImageCanvas, DrawsCentredTextInsideItsRectangle) {
    auto canvas = makeCairoImageCanvas(120, 60);
    ASSERT_NE(canvas, nullptr);
    canvas->fillRect({0, 0, 120, 60}, {0, 0, 0, 1});
    const Rect rect{20, 10, 80, 40};
    canvas->drawText("JD", rect, Font{28, FontWeight::medium}, kWhite, TextAlignment::center);
    auto box = whiteInk(render(*canvas));

    ASSERT_FALSE(box.empty());
    EXPECT_GE(box.left, 20);
    EXPECT_LE(box.right, 99);
    EXPECT_GE(box.top, 10);
    EXPECT_LE(box.bottom, 49);
    EXPECT_NEAR((box.left + box.right) / 2.0, 60, 3) << "centred in the rectangle";
}

// The module is loaded once per process, so a failed load is tried in a fresh process.
TEST(DrawingLoaderDeathTest, NoCanvasWhenTheNamedModuleCannotBeLoaded) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv(platform::linux_host::kDrawingModuleVariable, "/nonexistent/module.so", 1);
            bool made = platform::linux_host::loadAndMakeImageCanvas(8, 8) != nullptr;
            std::exit(made ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(DrawingLoaderDeathTest, LoadsTheModuleNamedInTheEnvironment) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv(platform::linux_host::kDrawingModuleVariable, VONTU_DRAWING_MODULE_PATH, 1);
            bool made = platform::linux_host::loadAndMakeImageCanvas(8, 8) != nullptr;
            std::exit(made ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vontu::testing
