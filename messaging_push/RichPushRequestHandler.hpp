#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Common/util/Atomic.hpp"
#include "TernTracking/SdkInitializedUtil.hpp"
#include "messaging_push/RichPushRequest.hpp"
#include "messaging_push/TernParsedPushPayload.hpp"
#include "platform/Notification.hpp"

namespace tern {

// The rich pushes being composed in this process, by notification request identifier, so that
// all of them can be finished at once when the system's time runs out.
//
// A request stays registered for the life of the process, also after it completed; a second
// request with an identifier already registered is ignored altogether (its completion never
// runs), as the system never sends one request twice.
class RichPushRequestHandler {
public:
    // The process's registry, created on first use and never destroyed: download completions
    // may still arrive while the process exits.
    static RichPushRequestHandler& shared();

    // sdkInitializedUtil tells whether the library is initialised and gives its graph, from
    // which each request takes its HTTP client.
    explicit RichPushRequestHandler(std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil);
    RichPushRequestHandler(const RichPushRequestHandler&) = delete;
    RichPushRequestHandler& operator=(const RichPushRequestHandler&) = delete;

    // Registers and starts a request for the push; does nothing when the identifier is already
    // registered or the library is not initialised.
    void startRequest(const vontu::platform::NotificationRequest& request,
                      std::shared_ptr<TernParsedPushPayload> content,
                      RichPushRequest::CompletionHandler completionHandler);
    // Finishes every registered request with the content it has now.
    void stopAll();

private:
    using Requests = std::map<std::string, std::shared_ptr<RichPushRequest>>;

    const std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil_;
    // Every read and write of the whole map is exclusive. An insertion reads the map, checks
    // the identifier and writes it back; insertion_ keeps those steps one.
    std::mutex insertion_;
    Atomic<Requests> requests_{Requests{}};
};

}  // namespace tern
