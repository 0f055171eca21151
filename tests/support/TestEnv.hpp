#pragma once

#include <memory>
#include <thread>

#include "platform/linux/LinuxEnv.hpp"
#include "tests/support/TempDir.hpp"

namespace vontu::testing {

// A real LinuxEnv over a fresh temporary state root, installed as the process's Env, with its
// main loop running on a thread of its own (the tests' "main thread"). Everything is torn
// down, and the previous Env restored, when the object goes away. Every test program also has
// one for the whole run (GlobalTestEnv.cpp), so code that reaches the platform works in any
// test; a test that needs settings of its own makes its own TestEnv, which takes precedence.
class TestEnv {
public:
    explicit TestEnv(platform::linux_host::HostSettings settings = {});
    ~TestEnv();

    platform::linux_host::LinuxEnv& env() { return *env_; }
    const std::filesystem::path& home() const { return home_.path(); }

    // Runs block on the main thread and waits for it.
    void onMainAndWait(const std::function<void()>& block);

private:
    TempDir home_;
    std::unique_ptr<platform::linux_host::LinuxEnv> env_;
    std::thread mainThread_;
    platform::Env* previous_ = nullptr;
};

}  // namespace vontu::testing
