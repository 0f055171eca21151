# Draining 1,000 queued tasks through queue runs against a loopback tracking service, against
# the same requests made with libcurl alone.
add_executable(queue_drain_bench queue_drain_bench.cpp)
target_link_libraries(queue_drain_bench PRIVATE
  tern_common vontu_platform_linux benchmark::benchmark vontu_httplib CURL::libcurl)
