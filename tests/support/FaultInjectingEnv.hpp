#pragma once

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <system_error>

#include "platform/EnvWrapper.hpp"

namespace vontu::testing {

// The platform with one file operation made to fail, as a storage engine's fault-injection
// environment does: the Nth call that changes the file system (a write, rewrite, move, removal
// or directory creation) after arm() fails with EIO or ENOSPC, or is a short write (part of the
// contents reaches a scratch file beside the target, which keeps what it had, and the call
// fails with ENOSPC, as a write that ran out of room does). Every other call goes through.
// Installed as the process's Env for the life of the object. afterChange, when set, runs after
// every changing call that succeeded (a test takes its snapshots there, to stand for a power
// cut after any of them).
class FaultInjectingEnv final : public platform::EnvWrapper {
public:
    enum class Fault { eio, enospc, shortWrite };

    explicit FaultInjectingEnv(platform::Env& target) : EnvWrapper(target), previous_(&target) {
        platform::Env::setCurrent(this);
    }
    ~FaultInjectingEnv() override { platform::Env::setCurrent(previous_); }

    // Counts the changing calls from now on and fails the nth (0: none).
    void arm(int nth, Fault fault) {
        fault_ = fault;
        calls_ = 0;
        failAt_ = nth;
        fired_ = false;
    }
    int changingCalls() const { return calls_; }
    bool fired() const { return fired_; }
    std::function<void()> afterChange;

    std::expected<void, platform::FileError> writeFile(const std::filesystem::path& p,
                                                       const platform::Bytes& c) override {
        if (failNow()) return std::unexpected(injected(p, c));
        return changed(target().writeFile(p, c));
    }
    std::expected<std::shared_ptr<const platform::FilePin>, platform::FileError> rewriteFile(
        const std::filesystem::path& p, const platform::Bytes& c) override {
        if (failNow()) return std::unexpected(injected(p, c));
        return changed(target().rewriteFile(p, c));
    }
    std::expected<void, platform::FileError> moveItem(const std::filesystem::path& f,
                                                      const std::filesystem::path& t) override {
        if (failNow()) return std::unexpected(injected(t, {}));
        return changed(target().moveItem(f, t));
    }
    std::expected<void, platform::FileError> removeItem(const std::filesystem::path& p) override {
        if (failNow()) return std::unexpected(injected(p, {}));
        return changed(target().removeItem(p));
    }
    std::expected<void, platform::FileError> createDirectories(
        const std::filesystem::path& p) override {
        // Directories that are there already cost no change, and are not counted.
        if (target().fileExists(p)) return target().createDirectories(p);
        if (failNow()) return std::unexpected(injected(p, {}));
        return changed(target().createDirectories(p));
    }

private:
    template <class Result>
    Result changed(Result result) {
        if (result && afterChange) afterChange();
        return result;
    }

    bool failNow() {
        const int call = ++calls_;
        if (call != failAt_) return false;
        fired_ = true;
        return true;
    }

    platform::FileError injected(const std::filesystem::path& path, const platform::Bytes& c) {
        if (fault_ == Fault::shortWrite && !c.empty()) {
            const platform::Bytes part(c.begin(), c.begin() + static_cast<long>(c.size() / 2));
            (void)target().writeFile(path.string() + ".short", part);
        }
        const int error = fault_ == Fault::eio ? EIO : ENOSPC;
        return {"injected: " + path.string() + ": " + std::generic_category().message(error)};
    }

    platform::Env* previous_;
    std::atomic<Fault> fault_{Fault::eio};
    std::atomic<int> calls_{0};
    std::atomic<int> failAt_{0};
    std::atomic<bool> fired_{false};
};

}  // namespace vontu::testing
