#pragma once

#include <string>

#include "platform/AutoMockable.hpp"

namespace tern {

// The library's diagnostics. Implementations filter by the configured level.
class Logger : public vontu::AutoMockable {
public:
    virtual void debug(const std::string& message) = 0;
    virtual void info(const std::string& message) = 0;
    virtual void error(const std::string& message) = 0;
};

}  // namespace tern
