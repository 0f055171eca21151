#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

#include "platform/EnvWrapper.hpp"

namespace vontu::hosts {

// An Env that notes the first failure to store something under one directory, so that a host
// can tell its user that the work of a command was not kept: the library reports a failed
// addition to its queue only to its own callers, and the host's commands are calls that
// return nothing.
//
// Noted: a file write, rewrite, move or directory creation that fails, and a pinned read (the
// read that comes before every change of the queue's inventory) that fails for another reason
// than there being no file yet.
class StoreFailureEnv final : public platform::EnvWrapper {
public:
    StoreFailureEnv(platform::Env& target, std::filesystem::path watched)
        : EnvWrapper(target), watched_(std::move(watched)) {}

    // The platform's description of the first failure noted, if any.
    std::optional<std::string> firstFailure() {
        std::lock_guard lock(mutex_);
        return firstFailure_;
    }

    std::expected<void, platform::FileError> writeFile(const std::filesystem::path& p,
                                                       const platform::Bytes& c) override {
        return noted(p, target().writeFile(p, c));
    }
    std::expected<std::shared_ptr<const platform::FilePin>, platform::FileError> rewriteFile(
        const std::filesystem::path& p, const platform::Bytes& c) override {
        return noted(p, target().rewriteFile(p, c));
    }
    std::expected<void, platform::FileError> moveItem(const std::filesystem::path& f,
                                                      const std::filesystem::path& t) override {
        return noted(t, target().moveItem(f, t));
    }
    std::expected<void, platform::FileError> createDirectories(
        const std::filesystem::path& p) override {
        return noted(p, target().createDirectories(p));
    }
    std::expected<platform::PinnedContents, platform::FileError> readFileAndPin(
        const std::filesystem::path& p) override {
        auto read = target().readFileAndPin(p);
        if (!read && read.error().nothingThere) return read;
        return noted(p, std::move(read));
    }

private:
    template <class Result>
    Result noted(const std::filesystem::path& path, Result result) {
        if (result || !isWatched(path)) return result;
        std::lock_guard lock(mutex_);
        if (!firstFailure_) firstFailure_ = result.error().localizedDescription;
        return result;
    }

    bool isWatched(const std::filesystem::path& path) const {
        auto [end, ignored] = std::mismatch(watched_.begin(), watched_.end(), path.begin(),
                                            path.end());
        return end == watched_.end();
    }

    const std::filesystem::path watched_;
    std::mutex mutex_;
    std::optional<std::string> firstFailure_;
};

}  // namespace vontu::hosts
