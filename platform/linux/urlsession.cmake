# URL sessions: libcurl lives in a loadable module, libvontu_urlsession_curl.so, mapped only by
# a process that goes on the network. What the rest of the tree links is the small loader.
add_library(vontu_urlsession_curl_module MODULE CurlUrlSession.cpp CurlTransfer.cpp)
set_target_properties(vontu_urlsession_curl_module PROPERTIES
  OUTPUT_NAME vontu_urlsession_curl
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_link_libraries(vontu_urlsession_curl_module PRIVATE vontu_platform CURL::libcurl Threads::Threads)

add_library(vontu_urlsession_loader STATIC UrlSessionLoader.cpp)
target_link_libraries(vontu_urlsession_loader PUBLIC vontu_platform PRIVATE vontu_module_loader)
target_compile_definitions(vontu_urlsession_loader PRIVATE
  VONTU_URLSESSION_MODULE_BUILD_PATH="$<TARGET_FILE:vontu_urlsession_curl_module>")
add_dependencies(vontu_urlsession_loader vontu_urlsession_curl_module)

add_library(vontu_urlsession_curl ALIAS vontu_urlsession_loader)

install(TARGETS vontu_urlsession_curl_module LIBRARY DESTINATION lib/vontu)
