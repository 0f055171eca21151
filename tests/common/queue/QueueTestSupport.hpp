#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "Common/config/SdkConfig.hpp"
#include "Common/queue/FileManagerQueueStorage.hpp"
#include "Common/storage/FileManagerFileStorage.hpp"
#include "Common/util/DateUtil.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "Common/util/LockManager.hpp"
#include "Common/util/Logger.hpp"
#include "platform/Env.hpp"

namespace tern::testing {

// A clock that stands still until the test moves it.
class FixedClock final : public DateUtil {
public:
    explicit FixedClock(double seconds = 1700000000.0) : seconds_(seconds) {}
    vontu::platform::Date now() const override { return {seconds_.load()}; }
    void set(double seconds) { seconds_.store(seconds); }

private:
    std::atomic<double> seconds_;
};

// A queue storage over the real file storage of the current platform.
inline std::shared_ptr<FileManagerQueueStorage> makeQueueStorage(
    const std::string& siteId, const SdkConfig& config, std::shared_ptr<Logger> logger,
    std::shared_ptr<DateUtil> clock, const std::shared_ptr<LockManager>& lockManager) {
    return std::make_shared<FileManagerQueueStorage>(
        std::make_shared<FileManagerFileStorage>(siteId, logger),
        std::make_shared<JsonAdapter>(logger), siteId, config, logger, std::move(clock),
        lockManager);
}

// The site's queue directory of the current platform.
inline std::filesystem::path queueDirectory(const std::string& siteId) {
    return *vontu::platform::Env::current().applicationSupportDirectory() / "dev.tern" / siteId /
           "queue";
}

inline std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeText(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

}  // namespace tern::testing
