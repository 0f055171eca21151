# Drawing: cairo and pango live in a loadable module, libvontu_drawing_cairo.so, so that they
# are mapped only by a process that draws. What the rest of the tree links is the small loader.

add_library(vontu_drawing_cairo_module MODULE CairoImageCanvas.cpp CairoNotificationPreview.cpp)
set_target_properties(vontu_drawing_cairo_module PROPERTIES
  OUTPUT_NAME vontu_drawing_cairo
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_link_libraries(vontu_drawing_cairo_module PRIVATE PkgConfig::PANGOCAIRO PkgConfig::BADGE_FONTS)

add_library(vontu_drawing_loader STATIC DrawingLoader.cpp)
target_link_libraries(vontu_drawing_loader PRIVATE vontu_module_loader)
# Where the module is built: the loader's last-but-one place to look, so that executables in
# the build tree find it wherever they lie.
target_compile_definitions(vontu_drawing_loader PRIVATE
  VONTU_DRAWING_MODULE_BUILD_PATH="$<TARGET_FILE:vontu_drawing_cairo_module>")
# Anything that can load the module builds it.
add_dependencies(vontu_drawing_loader vontu_drawing_cairo_module)

# The name the platform links: the loader.
add_library(vontu_drawing_cairo ALIAS vontu_drawing_loader)

install(TARGETS vontu_drawing_cairo_module LIBRARY DESTINATION lib/vontu)
