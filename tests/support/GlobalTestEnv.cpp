// Installs a real platform environment over a temporary state root for the whole run of a
// test program, before any test and until after the last.

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/TestEnv.hpp"

namespace vontu::testing {
namespace {

class GlobalTestEnv final : public ::testing::Environment {
public:
    void SetUp() override { env_ = std::make_unique<TestEnv>(); }
    void TearDown() override { env_.reset(); }

private:
    std::unique_ptr<TestEnv> env_;
};

[[maybe_unused]] ::testing::Environment* const registered =
    ::testing::AddGlobalTestEnvironment(new GlobalTestEnv);

}  // namespace
}  // namespace vontu::testing
