# GoogleTest, Google Benchmark and cpp-httplib compiled from source with this build's compiler
# and standard library: Debian ships them compiled against libstdc++ only. They are others'
# code, so they are built without this project's warnings.
set(VONTU_TEST_SOURCES "${CMAKE_SOURCE_DIR}/.cache/test-sources" CACHE PATH
    "Where scripts/fetch-test-sources unpacked Google Benchmark and cpp-httplib")
set(VONTU_GOOGLETEST_SOURCE "/usr/src/googletest" CACHE PATH "GoogleTest's source (Debian's googletest)")

function(vontu_quiet_third_party)
  foreach(target IN LISTS ARGN)
    target_compile_options(${target} PRIVATE -w)
  endforeach()
endfunction()

if(VONTU_TESTS)
  if(NOT EXISTS "${VONTU_GOOGLETEST_SOURCE}/CMakeLists.txt")
    message(FATAL_ERROR "GoogleTest's source is not in ${VONTU_GOOGLETEST_SOURCE}: install googletest")
  endif()
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
  add_subdirectory(${VONTU_GOOGLETEST_SOURCE} ${CMAKE_BINARY_DIR}/third_party/googletest EXCLUDE_FROM_ALL)
  vontu_quiet_third_party(gtest gtest_main gmock gmock_main)
endif()

if(VONTU_BENCH)
  if(NOT EXISTS "${VONTU_TEST_SOURCES}/benchmark/CMakeLists.txt")
    message(FATAL_ERROR "Google Benchmark's source is not in ${VONTU_TEST_SOURCES}: run scripts/fetch-test-sources")
  endif()
  set(BENCHMARK_ENABLE_TESTING OFF CACHE BOOL "" FORCE)
  set(BENCHMARK_ENABLE_GTEST_TESTS OFF CACHE BOOL "" FORCE)
  set(BENCHMARK_ENABLE_INSTALL OFF CACHE BOOL "" FORCE)
  set(BENCHMARK_ENABLE_WERROR OFF CACHE BOOL "" FORCE)
  set(BENCHMARK_USE_LIBCXX ON CACHE BOOL "" FORCE)
  # Debian's source reads its version from the packaging rather than from git.
  set(GIT_VERSION "0.0.0")
  add_subdirectory(${VONTU_TEST_SOURCES}/benchmark ${CMAKE_BINARY_DIR}/third_party/benchmark EXCLUDE_FROM_ALL)
  vontu_quiet_third_party(benchmark benchmark_main)
endif()

# cpp-httplib as one header with the same features the Debian build has.
if(NOT EXISTS "${VONTU_TEST_SOURCES}/cpp-httplib/httplib.h")
  message(FATAL_ERROR "cpp-httplib's source is not in ${VONTU_TEST_SOURCES}: run scripts/fetch-test-sources")
endif()
find_package(ZLIB REQUIRED)
pkg_check_modules(BROTLI REQUIRED IMPORTED_TARGET libbrotlicommon libbrotlidec libbrotlienc)
add_library(vontu_httplib INTERFACE)
target_include_directories(vontu_httplib SYSTEM BEFORE INTERFACE ${VONTU_TEST_SOURCES}/cpp-httplib)
target_compile_definitions(vontu_httplib INTERFACE
  CPPHTTPLIB_OPENSSL_SUPPORT CPPHTTPLIB_ZLIB_SUPPORT CPPHTTPLIB_BROTLI_SUPPORT)
target_link_libraries(vontu_httplib INTERFACE
  OpenSSL::SSL OpenSSL::Crypto ZLIB::ZLIB PkgConfig::BROTLI Threads::Threads)
