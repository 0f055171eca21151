// Sanitizer settings for the libraries the Linux platform builds on. The sanitizer runtimes
// look these hooks up in the executable, so this file is compiled into every program that
// links the platform (an interface source of vontu_platform_linux). Outside sanitizer builds
// it is empty.

// gcc says which sanitizer is on with __SANITIZE_*__, clang with __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define VONTU_ADDRESS_SANITIZER 1
#endif
#if defined(__SANITIZE_THREAD__)
#define VONTU_THREAD_SANITIZER 1
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VONTU_ADDRESS_SANITIZER 1
#endif
#if __has_feature(thread_sanitizer)
#define VONTU_THREAD_SANITIZER 1
#endif
#endif

#if defined(VONTU_ADDRESS_SANITIZER)
// fontconfig's caches, which pango's font maps hold until the process ends, show up in
// LeakSanitizer's report at exit though they are in use to the end. Quiet, so that standard
// error carries only what the process itself writes.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }
#endif

#if defined(VONTU_THREAD_SANITIZER)
// The drawing stack is not built for ThreadSanitizer: its locks and reference counts (glib's
// futex mutexes, cairo's atomics) are invisible to it, so the string and memory calls those
// libraries make would be reported as races. Their calls are not checked; ours still are.
// glibc's time-zone set-up (tzset, behind localtime_r) holds an internal lock that
// ThreadSanitizer cannot see either.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcairo.so\n"
           "called_from_lib:libpixman-1.so\n"
           "called_from_lib:libfontconfig.so\n"
           "called_from_lib:libfreetype.so\n"
           "called_from_lib:libharfbuzz.so\n"
           "called_from_lib:libpango-1.0.so\n"
           "called_from_lib:libpangoft2-1.0.so\n"
           "called_from_lib:libpangocairo-1.0.so\n"
           "called_from_lib:libglib-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n"
           "race:tzset_internal\n";
}
#endif
