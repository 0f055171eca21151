# One warning set per compiler. gcc and clang share the core set; each adds what it alone has,
# and neither is handed an option it does not know.
set(VONTU_COMMON_WARNINGS
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
    -Woverloaded-virtual -Wimplicit-fallthrough)

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(${VONTU_COMMON_WARNINGS})
  # gcc 12 reports false "maybe uninitialized" and "restrict" warnings inside std::variant,
  # std::optional and std::string at -O2 and above (GCC bugs 105562, 107138, 105329); the
  # sanitizer builds still catch the real faults these would point at.
  add_compile_options(-Wno-maybe-uninitialized -Wno-restrict)
elseif(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # clang's -Wshadow leaves out fields and lambda captures, which gcc's -Wshadow covers.
  add_compile_options(${VONTU_COMMON_WARNINGS} -Wshadow-all -Wunused-exception-parameter
                      -Wunreachable-code -Wextra-semi)
else()
  message(WARNING "No warning set for ${CMAKE_CXX_COMPILER_ID}; building without warnings")
endif()

if(VONTU_WERROR)
  add_compile_options(-Werror)
endif()
