#include "TernTracking/SdkInitializedUtilImpl.hpp"

#include "Common/DIGraph.hpp"
#include "TernTracking/Tern.hpp"

namespace tern {

std::shared_ptr<Tern> SdkInitializedUtilImpl::tern() { return Tern::shared(); }

bool SdkInitializedUtilImpl::isInitlaized() { return Tern::shared()->diGraph() != nullptr; }

std::optional<PostInitializedData> SdkInitializedUtilImpl::postInitializedData() {
    // One read of the graph, so site id and graph always belong together.
    auto diGraph = Tern::shared()->diGraph();
    if (!diGraph) return std::nullopt;
    return PostInitializedData{diGraph->siteId(), diGraph};
}

}  // namespace tern
