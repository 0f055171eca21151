#include "Common/util/SdkNotInitializedAlert.hpp"

#include "Common/util/ConsoleLogger.hpp"

namespace tern {

void sdkNotInitializedAlert(const std::string& message) {
    ConsoleLogger::logMessageToConsole("\u26A0\uFE0F " + message, TernLogLevel::error);
}

}  // namespace tern
