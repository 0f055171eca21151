# The queue storage's create, get and delete by inventory size, against plain file calls on
# the same bytes.
add_executable(queue_storage_bench queue_storage_bench.cpp)
target_link_libraries(queue_storage_bench PRIVATE
  tern_common vontu_platform_linux benchmark::benchmark)
