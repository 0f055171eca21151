add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
                    -Wcast-align -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough)
if(VONTU_WERROR)
  add_compile_options(-Werror)
endif()
