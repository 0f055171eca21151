#pragma once

#include "platform/Env.hpp"

namespace tern::testing {

// Installs env as the process's Env for the life of this object, then puts back the one that
// was current before.
class ScopedCurrentEnv {
public:
    ScopedCurrentEnv(vontu::platform::Env& env, vontu::platform::Env& previous)
        : previous_(previous) {
        vontu::platform::Env::setCurrent(&env);
    }
    ~ScopedCurrentEnv() { vontu::platform::Env::setCurrent(&previous_); }
    ScopedCurrentEnv(const ScopedCurrentEnv&) = delete;
    ScopedCurrentEnv& operator=(const ScopedCurrentEnv&) = delete;

private:
    vontu::platform::Env& previous_;
};

}  // namespace tern::testing
