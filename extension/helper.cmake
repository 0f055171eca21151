# Communication notifications and sender avatars. It reaches the platform only through
# vontu::platform::Env, so drawing (a module loaded on demand) is not linked here.
add_library(vontu_notification_helper STATIC
  QLXNotificationHelper.cpp
  SenderInitials.cpp
  UnicodeText.cpp
)
target_link_libraries(vontu_notification_helper PUBLIC vontu_platform)
