add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
                    -Wcast-align -Woverloaded-virtual -Wimplicit-fallthrough)
if(VONTU_WERROR)
  add_compile_options(-Werror)
endif()
# gcc 12 reports false "maybe uninitialized" and "restrict" warnings inside std::variant,
# std::optional and std::string at -O2 and above (GCC bugs 105562, 107138, 105329); the
# sanitizer builds still catch the real faults these would point at.
add_compile_options(-Wno-maybe-uninitialized -Wno-restrict)
