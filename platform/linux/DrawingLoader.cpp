#include "platform/linux/DrawingLoader.hpp"

#include <mutex>

#include "platform/linux/CairoImageCanvas.hpp"
#include "platform/linux/ModuleLoader.hpp"

namespace vontu::platform::linux_host {

namespace {

MakeImageCanvasFunction loadFactory() {
    static constexpr ModuleSpec spec{kDrawingModuleFileName, kDrawingModuleVariable,
                                     VONTU_DRAWING_MODULE_BUILD_PATH, kMakeImageCanvasSymbol};
    return reinterpret_cast<MakeImageCanvasFunction>(loadModuleSymbol(spec));
}

}  // namespace

std::unique_ptr<ImageCanvas> loadAndMakeImageCanvas(int width, int height) {
    static std::once_flag loaded;
    static MakeImageCanvasFunction factory = nullptr;
    std::call_once(loaded, [] { factory = loadFactory(); });
    if (factory == nullptr) return nullptr;
    return std::unique_ptr<ImageCanvas>(factory(width, height));
}

std::unique_ptr<ImageCanvas> makeCairoImageCanvas(int width, int height) {
    return loadAndMakeImageCanvas(width, height);
}

}  // namespace vontu::platform::linux_host

// Sanitizer settings for the drawing stack. The runtime looks these hooks up in the
// executable, not in a loaded module, so they live in the loader, which every process that
// can draw links. They are weak: an executable with settings of its own keeps those.

#if defined(__SANITIZE_ADDRESS__)
// fontconfig's caches, which pango's font maps hold until the process ends, show up in
// LeakSanitizer's report at exit though they are in use to the end. Quiet, so that standard
// error carries only what the process itself writes.
extern "C" __attribute__((weak)) const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
extern "C" __attribute__((weak)) const char* __lsan_default_options() {
    return "print_suppressions=0";
}
#endif

#if defined(__SANITIZE_THREAD__)
// The drawing stack is not built for ThreadSanitizer: its locks and reference counts (glib's
// futex mutexes, cairo's atomics) are invisible to it, so the string and memory calls those
// libraries make would be reported as races. Their calls are not checked; ours still are.
extern "C" __attribute__((weak)) const char* __tsan_default_suppressions() {
    return "called_from_lib:libcairo.so\n"
           "called_from_lib:libpixman-1.so\n"
           "called_from_lib:libfontconfig.so\n"
           "called_from_lib:libfreetype.so\n"
           "called_from_lib:libharfbuzz.so\n"
           "called_from_lib:libpango-1.0.so\n"
           "called_from_lib:libpangoft2-1.0.so\n"
           "called_from_lib:libpangocairo-1.0.so\n"
           "called_from_lib:libglib-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n";
}
#endif
