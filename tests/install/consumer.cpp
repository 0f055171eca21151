// The smallest program built with pkg-config against the installed package: it links the
// platform and the library and encodes a profile id as the tracking API's path gets it.
#include <cstdio>

#include "Common/config/TernApiEndpoint.hpp"
#include "platform/linux/LinuxEnv.hpp"

int main() {
    vontu::platform::linux_host::LinuxEnv env(vontu::platform::linux_host::HostSettings{});
    vontu::platform::Env::setCurrent(&env);
    std::puts(tern::TernApiEndpoint::identifyCustomer("a/b").path().c_str());
    return 0;
}
