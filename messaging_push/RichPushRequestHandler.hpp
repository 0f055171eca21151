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
// A request stays registered for the life of the process, also after it completed. The system
// may hand the same push to a reused process twice: a request whose identifier is registered
// already is registered beside the earlier one and composed and delivered as well.
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

    // Registers and starts a request for the push; does nothing when the library is not
    // initialised.
    void startRequest(const vontu::platform::NotificationRequest& request,
                      std::shared_ptr<TernParsedPushPayload> content,
                      RichPushRequest::CompletionHandler completionHandler);
    // Finishes every registered request with the content it has now.
    void stopAll();

private:
    using Requests = std::multimap<std::string, std::shared_ptr<RichPushRequest>>;

    const std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil_;
    // Every read and write of the whole map is exclusive. An insertion reads the map and writes
    // it back; insertion_ keeps those steps one.
    std::mutex insertion_;
    Atomic<Requests> requests_{Requests{}};
};

}  // namespace tern
