#pragma once

#include <string>

namespace vontu::platform::linux_host {

// Heavy backends (libcurl with its TLS and directory libraries, cairo with pango and
// fontconfig) live in loadable modules instead of being link-time dependencies: mapping and
// relocating their dozens of shared libraries costs several milliseconds and megabytes at
// every start, and most extension runs (read receipts) need neither.
struct ModuleSpec {
    const char* fileName;             // e.g. "libvontu_urlsession_curl.so"
    const char* environmentVariable;  // names the module's full path instead, when set
    const char* buildPath;            // where the build tree puts it
    const char* symbol;               // the one export looked up
};

// Loads the module (never unloaded: objects it made may live to the end) and returns the
// address of its symbol, or null when no candidate loads. Looks at the environment variable's
// path when it is set (and only there), else next to the executable, in ../lib/vontu and
// ../lib beside it, at the build path, and finally through the dynamic linker's own search.
void* loadModuleSymbol(const ModuleSpec& module);

}  // namespace vontu::platform::linux_host
