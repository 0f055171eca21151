# What the portable libraries need: the C++ library, JSON and fmt.
find_package(Threads REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(fmt REQUIRED)

if(VONTU_LINUX_PLATFORM)
  # The Linux platform, its hosts, tests and benchmarks.
  find_package(PkgConfig REQUIRED)
  find_package(CURL REQUIRED)
  find_package(OpenSSL REQUIRED)
  find_package(SQLite3 REQUIRED)
  find_package(CLI11 CONFIG REQUIRED)
  pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
  pkg_check_modules(PANGOCAIRO REQUIRED IMPORTED_TARGET pangocairo cairo)
  # The drawing module's own font configuration, and its PNG writer.
  pkg_check_modules(BADGE_FONTS REQUIRED IMPORTED_TARGET pangoft2 fontconfig libpng)

  # asio ships as a standalone header-only library.
  find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
  add_library(asio INTERFACE)
  target_include_directories(asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
  target_compile_definitions(asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
  target_link_libraries(asio INTERFACE Threads::Threads)
endif()

# The test and benchmark libraries. Debian compiles them against libstdc++; a build on libc++
# compiles them from source instead (scripts/fetch-test-sources puts the sources in place).
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("#include <version>
#ifndef _LIBCPP_VERSION
#error not libc++
#endif
int main() {}" VONTU_LIBCXX)

if(VONTU_LIBCXX AND (VONTU_TESTS OR VONTU_BENCH))
  include(cmake/TestSourcesLibcxx.cmake)
else()
  if(VONTU_TESTS)
    find_package(GTest REQUIRED)
  endif()
  if(VONTU_BENCH)
    find_package(benchmark REQUIRED)
  endif()
  if(VONTU_TESTS OR VONTU_BENCH)
    # Debian's cpp-httplib is a compiled library whose class layouts depend on the definitions
    # its pkg-config file gives (TLS, compression): every test must use the same ones.
    pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
    add_library(vontu_httplib INTERFACE)
    target_link_libraries(vontu_httplib INTERFACE PkgConfig::HTTPLIB)
  endif()
endif()
