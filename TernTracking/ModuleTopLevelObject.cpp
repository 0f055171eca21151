#include "TernTracking/ModuleTopLevelObject.hpp"

#include <cstdio>
#include <cstdlib>

namespace tern {

void moduleTopLevelObjectFatalError() {
    std::fputs("TernTracking/ModuleTopLevelObject: Fatal error: forgot to override in subclass\n",
               stderr);
    std::fflush(stderr);
    std::abort();
}

}  // namespace tern
