#pragma once

#include "TernTracking/SdkInitializedUtil.hpp"

namespace tern {

// SdkInitializedUtil over Tern::shared(). Holds nothing of its own.
class SdkInitializedUtilImpl final : public SdkInitializedUtil {
public:
    std::shared_ptr<Tern> tern() override;
    bool isInitlaized() override;
    std::optional<PostInitializedData> postInitializedData() override;
};

}  // namespace tern
