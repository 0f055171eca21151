find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(fmt REQUIRED)
find_package(CLI11 CONFIG REQUIRED)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(PANGOCAIRO REQUIRED IMPORTED_TARGET pangocairo cairo)

# asio ships as a standalone header-only library.
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(asio INTERFACE)
target_include_directories(asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
target_compile_definitions(asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
target_link_libraries(asio INTERFACE Threads::Threads)

if(VONTU_TESTS)
  find_package(GTest REQUIRED)
  # Debian's cpp-httplib is a compiled library whose class layouts depend on the definitions
  # its pkg-config file gives (TLS, compression): every test must use the same ones.
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
endif()
if(VONTU_BENCH)
  find_package(benchmark REQUIRED)
endif()
