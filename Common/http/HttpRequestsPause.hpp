#pragma once

#include <memory>

#include "Common/storage/GlobalDataStore.hpp"
#include "Common/util/Logger.hpp"

namespace tern {

// The pause of all requests to the Tern API after the API refused the credentials or kept
// failing. Its end is kept in the global data store, so it outlasts the process: the next
// extension process honours it too. Once the end has passed the stored date simply stops
// applying; it is never cleared.
class HttpRequestsPause {
public:
    static constexpr int pauseMinutes = 5;

    HttpRequestsPause(std::shared_ptr<GlobalDataStore> globalDataStore,
                      std::shared_ptr<Logger> logger);

    // Pauses requests from now for pauseMinutes.
    void start();
    // True while now is not later than the stored end.
    bool isInEffect();

private:
    std::shared_ptr<GlobalDataStore> globalDataStore_;
    std::shared_ptr<Logger> logger_;
};

}  // namespace tern
