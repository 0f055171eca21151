add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
                    -Wcast-align -Woverloaded-virtual -Wimplicit-fallthrough)
if(VONTU_WERROR)
  add_compile_options(-Werror)
endif()
# gcc 12 reports false "maybe uninitialized" warnings inside std::variant and std::optional at
# -O2 and above (GCC bugs 105562, 107138); the sanitizer builds still catch real ones.
add_compile_options(-Wno-maybe-uninitialized)
