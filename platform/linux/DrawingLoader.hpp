#pragma once

#include <memory>

#include "platform/ImageCanvas.hpp"
#include "platform/NotificationPreview.hpp"

namespace vontu::platform::linux_host {

// The cairo/pango drawing backend is a loadable module (see ModuleLoader.hpp): most extension
// runs (read receipts, tracked pushes) never draw anything.

// File name of the module, and the environment variable that may name its full path instead.
inline constexpr const char* kDrawingModuleFileName = "libvontu_drawing_cairo.so";
inline constexpr const char* kDrawingModuleVariable = "VONTU_DRAWING_MODULE";

// The module's one export, with C linkage: a new canvas owned by the caller, or null.
inline constexpr const char* kMakeImageCanvasSymbol = "vontu_drawing_make_image_canvas";
using MakeImageCanvasFunction = ImageCanvas* (*)(int width, int height);

// The module's second export: draws a notification's banner and appends its PNG to the bytes;
// false when it cannot be drawn.
inline constexpr const char* kDrawNotificationPreviewSymbol =
    "vontu_drawing_draw_notification_preview";
using DrawNotificationPreviewFunction = bool (*)(const NotificationPreview& preview, Bytes& png);

// Loads the module once per process (thread-safe) and makes a canvas with it. Absent when the
// module cannot be loaded or the canvas not created.
std::unique_ptr<ImageCanvas> loadAndMakeImageCanvas(int width, int height);

// Loads the module (as above) and draws the banner as a PNG at PreviewLayout::kScale; absent
// when the module cannot be loaded or the picture not drawn.
std::optional<Bytes> loadAndDrawNotificationPreview(const NotificationPreview& preview);

}  // namespace vontu::platform::linux_host
