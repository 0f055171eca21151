#include "platform/linux/DrawingLoader.hpp"

#include <mutex>

#include "platform/linux/CairoImageCanvas.hpp"
#include "platform/linux/ModuleLoader.hpp"

namespace vontu::platform::linux_host {

namespace {

void* loadSymbol(const char* symbol) {
    const ModuleSpec module{kDrawingModuleFileName, kDrawingModuleVariable,
                            VONTU_DRAWING_MODULE_BUILD_PATH, symbol};
    return loadModuleSymbol(module);
}

MakeImageCanvasFunction loadFactory() {
    return reinterpret_cast<MakeImageCanvasFunction>(loadSymbol(kMakeImageCanvasSymbol));
}

}  // namespace

std::unique_ptr<ImageCanvas> loadAndMakeImageCanvas(int width, int height) {
    static std::once_flag loaded;
    static MakeImageCanvasFunction factory = nullptr;
    std::call_once(loaded, [] { factory = loadFactory(); });
    if (factory == nullptr) return nullptr;
    return std::unique_ptr<ImageCanvas>(factory(width, height));
}

std::optional<Bytes> loadAndDrawNotificationPreview(const NotificationPreview& preview) {
    static std::once_flag loaded;
    static DrawNotificationPreviewFunction draw = nullptr;
    std::call_once(loaded, [] {
        draw = reinterpret_cast<DrawNotificationPreviewFunction>(
            loadSymbol(kDrawNotificationPreviewSymbol));
    });
    Bytes png;
    if (draw == nullptr || !draw(preview, png)) return std::nullopt;
    return png;
}

std::unique_ptr<ImageCanvas> makeCairoImageCanvas(int width, int height) {
    return loadAndMakeImageCanvas(width, height);
}

}  // namespace vontu::platform::linux_host
