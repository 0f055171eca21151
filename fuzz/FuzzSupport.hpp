#pragma once

// What the fuzz targets share: the platform they run on, a logger that keeps quiet, and a check
// that stops the run with a message (libFuzzer then saves the input).

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "Common/util/Logger.hpp"
#include "platform/Bytes.hpp"
#include "platform/UrlSession.hpp"
#include "platform/linux/LinuxEnv.hpp"

namespace vontu::fuzz {

// The Linux platform over a state root of this process, installed once; its main loop runs on a
// thread of its own.
platform::linux_host::LinuxEnv& linuxEnv();

// Drops every line: the targets run millions of times.
class QuietLogger final : public tern::Logger {
public:
    void debug(const std::string&) override {}
    void info(const std::string&) override {}
    void error(const std::string&) override {}
};

// A URL session whose tasks the subclass answers at once: nothing to cancel or invalidate.
class AnsweringSessionBase : public platform::UrlSession {
public:
    void finishTasksAndInvalidate() override {}
    void invalidateAndCancel() override {}

protected:
    struct DoneTask final : platform::UrlSessionTask {
        void cancel() override {}
    };
    static std::shared_ptr<platform::UrlSessionTask> finishedTask() { return std::make_shared<DoneTask>(); }
};

// Stops the run when an invariant does not hold.
inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
}

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

inline platform::Bytes bytes(const std::uint8_t* data, std::size_t size) {
    return platform::Bytes(data, data + size);
}

// The input as JSON; discarded (null) when it is none.
inline nlohmann::json jsonOf(const std::uint8_t* data, std::size_t size) {
    return nlohmann::json::parse(text(data, size), nullptr, false);
}

}  // namespace vontu::fuzz
