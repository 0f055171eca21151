#pragma once

#include <memory>

#include "platform/ImageCanvas.hpp"

namespace vontu::platform::linux_host {

// A transparent ARGB canvas drawn with cairo and pango; absent when the drawing stack is not
// available. The drawing code sits in a module that is loaded on the first call (see
// DrawingLoader.hpp), so a process that never draws never loads cairo or pango.
std::unique_ptr<ImageCanvas> makeCairoImageCanvas(int width, int height);

}  // namespace vontu::platform::linux_host
