#include "Common/http/HttpRequestsPause.hpp"

#include <string>
#include <utility>

#include "platform/Env.hpp"

namespace tern {

HttpRequestsPause::HttpRequestsPause(std::shared_ptr<GlobalDataStore> globalDataStore,
                                     std::shared_ptr<Logger> logger)
    : globalDataStore_(std::move(globalDataStore)), logger_(std::move(logger)) {}

void HttpRequestsPause::start() {
    const auto now = vontu::platform::Env::current().now();
    globalDataStore_->setHttpRequestsPauseEnds(now.addingSeconds(pauseMinutes * 60.0));
    logger_->info("All HTTP requests to the Tern API have been paused for " +
                  std::to_string(pauseMinutes) + " minutes.");
}

bool HttpRequestsPause::isInEffect() {
    const auto pauseEnds = globalDataStore_->httpRequestsPauseEnds();
    if (!pauseEnds) return false;
    return vontu::platform::Env::current().now() <= *pauseEnds;
}

}  // namespace tern
