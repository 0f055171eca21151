# vontu-defaults: reads and writes defaults suites from a shell, as the main app does.
add_executable(vontu-defaults vontu-defaults.cpp)
target_link_libraries(vontu-defaults PRIVATE
  vontu_platform vontu_state_root vontu_defaults_sqlite CLI11::CLI11 nlohmann_json::nlohmann_json)
