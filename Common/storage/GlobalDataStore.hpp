#pragma once

#include <optional>
#include <string>

#include "platform/AutoMockable.hpp"
#include "platform/Date.hpp"

namespace tern {

// Values that belong to the app rather than to one site: the push device token and the end of
// the pause of all HTTP requests.
class GlobalDataStore : public vontu::AutoMockable {
public:
    virtual std::optional<std::string> pushDeviceToken() = 0;
    virtual void setPushDeviceToken(std::optional<std::string> token) = 0;
    virtual std::optional<vontu::platform::Date> httpRequestsPauseEnds() = 0;
    virtual void setHttpRequestsPauseEnds(std::optional<vontu::platform::Date> date) = 0;
    virtual void deleteAll() = 0;
};

}  // namespace tern
