#include "platform/linux/DrawingLoader.hpp"

#include <mutex>

#include "platform/linux/CairoImageCanvas.hpp"
#include "platform/linux/ModuleLoader.hpp"

namespace vontu::platform::linux_host {

namespace {

MakeImageCanvasFunction loadFactory() {
    static constexpr ModuleSpec module{kDrawingModuleFileName, kDrawingModuleVariable,
                                     VONTU_DRAWING_MODULE_BUILD_PATH, kMakeImageCanvasSymbol};
    return reinterpret_cast<MakeImageCanvasFunction>(loadModuleSymbol(module));
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
