# Drawing one sender badge, against the same picture without text.
add_executable(draw_badge_bench draw_badge_bench.cpp)
target_link_libraries(draw_badge_bench PRIVATE
  vontu_notification_helper vontu_platform_linux PkgConfig::PANGOCAIRO benchmark::benchmark)
