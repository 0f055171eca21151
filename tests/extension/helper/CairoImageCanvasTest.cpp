// The module loader that provides the canvas the sender badge is drawn on, and the canvas's
// refusal of empty sizes. (What it draws is checked through the badge.)

#include <gtest/gtest.h>

#include <cstdlib>

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

}  // namespace
}  // namespace vontu::testing
