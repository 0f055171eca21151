#pragma once

#include "platform/AutoMockable.hpp"

namespace tern {

// The clean-up that every initialisation of the library schedules once, in the background.
class CleanupRepository : public vontu::AutoMockable {
public:
    virtual void cleanup() = 0;
};

}  // namespace tern
