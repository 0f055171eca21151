# What `cmake --install` puts under the prefix, and the Debian package made from it:
#   bin/                     vontu-nse, vontu-defaults, tern
#   lib/vontu/               the loadable network and drawing modules (the hosts look there)
#   lib/                     the static libraries
#   include/vontu/<path>     the public headers under their repository paths
#   lib/cmake/Vontu/         find_package(Vontu CONFIG): Vontu::platform, Vontu::platform_linux,
#                            Tern::Common, Tern::Tracking, Tern::MessagingPush,
#                            Tern::MessagingPushFCM, Vontu::extension
#   lib/pkgconfig/           one .pc file for each of those libraries
# Nothing installed names a path of the build machine: CMake and pkg-config files find the
# prefix from where they are.

include(CMakePackageConfigHelpers)

set(VONTU_INSTALL_LIBDIR lib)
set(VONTU_INSTALL_INCLUDEDIR include/vontu)
set(VONTU_INSTALL_CMAKEDIR ${VONTU_INSTALL_LIBDIR}/cmake/Vontu)

# Library target, the name it has when installed, its pkg-config module, the modules it needs
# and the libraries it adds to a static link.
set(vontu_installed_libraries)
function(vontu_install_library target exportName)
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${exportName})
  target_include_directories(${target} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${VONTU_INSTALL_INCLUDEDIR}>)
  target_compile_features(${target} PUBLIC cxx_std_23)
  set(vontu_installed_libraries ${vontu_installed_libraries} ${target} PARENT_SCOPE)
endfunction()

# pkg-config's module for a library: name, description, required modules, extra link flags.
function(vontu_pkg_config target module description requires libs)
  set(VONTU_PC_NAME ${module})
  set(VONTU_PC_DESCRIPTION ${description})
  set(VONTU_PC_REQUIRES ${requires})
  set(VONTU_PC_LIBS "-l${target} ${libs}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/vontu.pc.in
                 ${PROJECT_BINARY_DIR}/pkgconfig/${module}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${module}.pc
          DESTINATION ${VONTU_INSTALL_LIBDIR}/pkgconfig)
endfunction()

vontu_install_library(vontu_platform Vontu::platform)
vontu_install_library(tern_common Tern::Common)
vontu_install_library(tern_tracking Tern::Tracking)
vontu_install_library(tern_messaging_push Tern::MessagingPush)
vontu_install_library(tern_messaging_push_fcm Tern::MessagingPushFCM)
vontu_install_library(vontu_notification_helper Vontu::notification_helper)
vontu_install_library(vontu_extension Vontu::extension)

# The platform's portable part. With the Linux platform it brings its MD5, base64 and UUIDs.
set(vontu_platform_libs "")
set(vontu_platform_requires "nlohmann_json")
if(VONTU_LINUX_PLATFORM)
  vontu_install_library(vontu_platform_linux Vontu::platform_linux)
  vontu_install_library(vontu_crypto_linux Vontu::crypto_linux)
  vontu_install_library(vontu_state_root Vontu::state_root)
  vontu_install_library(vontu_module_loader Vontu::module_loader)
  vontu_install_library(vontu_defaults_sqlite Vontu::defaults_sqlite)
  vontu_install_library(vontu_urlsession_loader Vontu::urlsession_loader)
  vontu_install_library(vontu_drawing_loader Vontu::drawing_loader)
  set(vontu_platform_libs "-lvontu_crypto_linux -luuid -ldl")
  install(TARGETS vontu-nse vontu-defaults tern RUNTIME DESTINATION bin)
  vontu_pkg_config(vontu_platform_linux vontu-platform-linux
    "The Vontu platform on Linux: SQLite defaults, libcurl sessions, cairo drawing"
    "vontu-platform sqlite3"
    "-lvontu_state_root -lvontu_defaults_sqlite -lvontu_urlsession_loader -lvontu_drawing_loader -lvontu_module_loader -lpthread -ldl -Wl,-rpath,\${libdir}/vontu")
endif()

vontu_pkg_config(vontu_platform vontu-platform "The Vontu platform interfaces"
  "${vontu_platform_requires}" "${vontu_platform_libs}")
vontu_pkg_config(tern_common tern-common "Tern: configuration, storage, queue and HTTP"
  "vontu-platform" "")
vontu_pkg_config(tern_tracking tern-tracking "Tern: profiles, events, screens, device tokens"
  "tern-common" "")
vontu_pkg_config(tern_messaging_push tern-messaging-push "Tern: push handling"
  "tern-tracking" "")
vontu_pkg_config(tern_messaging_push_fcm tern-messaging-push-fcm "Tern: push handling, FCM"
  "tern-messaging-push" "")
vontu_pkg_config(vontu_extension vontu-extension "The Vontu notification service extension"
  "tern-messaging-push" "-lvontu_notification_helper")

install(TARGETS ${vontu_installed_libraries} EXPORT VontuTargets
        ARCHIVE DESTINATION ${VONTU_INSTALL_LIBDIR})
install(EXPORT VontuTargets DESTINATION ${VONTU_INSTALL_CMAKEDIR})

set(vontu_header_directories Common TernTracking messaging_push messaging_push_fcm extension)
foreach(directory IN LISTS vontu_header_directories)
  install(DIRECTORY ${directory}/ DESTINATION ${VONTU_INSTALL_INCLUDEDIR}/${directory}
          FILES_MATCHING PATTERN "*.hpp")
endforeach()
install(DIRECTORY platform/ DESTINATION ${VONTU_INSTALL_INCLUDEDIR}/platform
        FILES_MATCHING PATTERN "*.hpp"
        PATTERN "linux" EXCLUDE)
if(VONTU_LINUX_PLATFORM)
  install(DIRECTORY platform/linux/ DESTINATION ${VONTU_INSTALL_INCLUDEDIR}/platform/linux
          FILES_MATCHING PATTERN "*.hpp")
endif()

configure_package_config_file(cmake/VontuConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VontuConfig.cmake INSTALL_DESTINATION ${VONTU_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VontuConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VontuConfig.cmake ${PROJECT_BINARY_DIR}/VontuConfigVersion.cmake
        DESTINATION ${VONTU_INSTALL_CMAKEDIR})

# The Debian package: `cpack -G DEB` in the build tree. Its dependencies come from the shared
# libraries that the programs and modules link (dpkg-shlibdeps), not from a list kept here.
set(CPACK_PACKAGE_NAME vontu)
set(CPACK_PACKAGE_VENDOR "Vontu")
set(CPACK_PACKAGE_CONTACT "Vontu push stack <push@vontu.app>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Vontu mail's notification service extension and the Tern client library, with Linux hosts")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION mail)
include(CPack)
