// The cost of one sender badge (initials drawn with pango into a PNG) against drawing and
// encoding the same picture without text, straight on cairo and through the canvas module.

#include <benchmark/benchmark.h>
#include <cairo.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "extension/QLXNotificationHelper.hpp"
#include "platform/Bytes.hpp"
#include "platform/Env.hpp"
#include "platform/linux/LinuxEnv.hpp"

namespace {

using vontu::extension::QLXNotificationHelper;
using vontu::platform::Bytes;
using vontu::platform::Env;

cairo_status_t appendToBytes(void* closure, const unsigned char* data, unsigned int length) {
    auto* bytes = static_cast<Bytes*>(closure);
    bytes->insert(bytes->end(), data, data + length);
    return CAIRO_STATUS_SUCCESS;
}

// Baseline: the same circle in the same colour, encoded as PNG, with no text and no loader.
void BM_CairoCirclePng(benchmark::State& state) {
    for (auto _ : state) {
        cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 96, 96);
        cairo_t* cr = cairo_create(surface);
        cairo_arc(cr, 48, 48, 48, 0, 6.283185307179586);
        cairo_clip(cr);
        cairo_set_source_rgba(cr, 0.0, 0.478, 1.0, 1.0);
        cairo_rectangle(cr, 0, 0, 96, 96);
        cairo_fill(cr);
        Bytes png;
        cairo_surface_write_to_png_stream(surface, appendToBytes, &png);
        benchmark::DoNotOptimize(png.data());
        cairo_destroy(cr);
        cairo_surface_destroy(surface);
    }
}
BENCHMARK(BM_CairoCirclePng);

// The canvas from the loaded module, still without text.
void BM_CanvasCirclePng(benchmark::State& state) {
    for (auto _ : state) {
        auto canvas = Env::current().newImageCanvas(96, 96);
        canvas->clipToRoundedRect({0, 0, 96, 96}, 48);
        canvas->fillRect({0, 0, 96, 96}, {0.0, 0.478, 1.0, 1.0});
        auto png = canvas->pngRepresentation();
        benchmark::DoNotOptimize(png);
    }
}
BENCHMARK(BM_CanvasCirclePng);

// One whole badge: initials, colour, clip, text layout and PNG.
void BM_InitialsBadge(benchmark::State& state) {
    for (auto _ : state) {
        auto png = QLXNotificationHelper::initialForSenderName("Jane Doe", "jane@example.com");
        benchmark::DoNotOptimize(png);
    }
}
BENCHMARK(BM_InitialsBadge);

}  // namespace

int main(int argc, char** argv) {
    std::string home = (std::filesystem::temp_directory_path() / "vontu-bench-XXXXXX").string();
    if (mkdtemp(home.data()) == nullptr) return 1;
    {
        vontu::platform::linux_host::HostSettings settings;
        settings.home = home;
        vontu::platform::linux_host::LinuxEnv env(settings);
        Env::setCurrent(&env);
        // Loads the module and initialises fontconfig before anything is timed.
        benchmark::DoNotOptimize(QLXNotificationHelper::initialForSenderName("A", "a@b"));

        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        Env::setCurrent(nullptr);
    }
    std::error_code ignored;
    std::filesystem::remove_all(home, ignored);
    return 0;
}
