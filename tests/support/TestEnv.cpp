#include "tests/support/TestEnv.hpp"

#include <future>

namespace vontu::testing {

TestEnv::TestEnv(platform::linux_host::HostSettings settings) {
    settings.home = home_.path();
    env_ = std::make_unique<platform::linux_host::LinuxEnv>(std::move(settings));
    std::promise<void> started;
    auto startedFuture = started.get_future();
    mainThread_ = std::thread([this, &started] {
        env_->runOnMain([&started] { started.set_value(); });
        env_->runMainLoop();
    });
    startedFuture.wait();
    previous_ = platform::Env::installed();
    platform::Env::setCurrent(env_.get());
}

TestEnv::~TestEnv() {
    env_->stopMainLoop();
    mainThread_.join();
    platform::Env::setCurrent(previous_);
    env_.reset();
}

void TestEnv::onMainAndWait(const std::function<void()>& block) {
    std::promise<void> done;
    env_->runOnMain([&] {
        block();
        done.set_value();
    });
    done.get_future().wait();
}

}  // namespace vontu::testing
