# tern: the library's tracking interface from a shell.
add_executable(tern tern.cpp)
target_link_libraries(tern PRIVATE vontu_host_common tern_tracking tern_messaging_push_fcm)
# The site the host tracks for unless told otherwise (--site-id, $TERN_SITE_ID, ...).
target_compile_definitions(tern PRIVATE
  TERN_SITE_ID="${TERN_SITE_ID}"
  TERN_API_KEY="${TERN_API_KEY}")
