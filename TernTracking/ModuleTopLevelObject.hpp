#pragma once

#include <memory>
#include <mutex>
#include <utility>

#include "Common/DIGraph.hpp"
#include "TernTracking/SdkInitializedUtil.hpp"
#include "TernTracking/SdkInitializedUtilImpl.hpp"

namespace tern {

// Stops the process because a module facade did not override an operation it must provide.
[[noreturn]] void moduleTopLevelObjectFatalError();

// The base of a module facade (push messaging and its variants): creates the module's
// implementation lazily, once the library is initialised, and keeps it.
//
// A facade overrides inititlizeModule() (what the module sets up in the graph) and
// getImplementationInstance() (its implementation object); the base versions stop the process.
// Before initialisation implementation() is absent and nothing is cached, so a later call after
// initialisation still creates it.
template <class Implementation>
class ModuleTopLevelObject {
public:
    ModuleTopLevelObject() : ModuleTopLevelObject(nullptr, nullptr) {}
    // implementation and sdkInitializedUtil replace the defaults, for tests; either may be
    // empty to keep the default.
    ModuleTopLevelObject(std::shared_ptr<Implementation> implementation,
                         std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil)
        : sdkInitializedUtil_(sdkInitializedUtil ? std::move(sdkInitializedUtil)
                                                 : std::make_shared<SdkInitializedUtilImpl>()),
          alreadyCreatedImplementation_(std::move(implementation)) {}
    virtual ~ModuleTopLevelObject() = default;
    ModuleTopLevelObject(const ModuleTopLevelObject&) = delete;
    ModuleTopLevelObject& operator=(const ModuleTopLevelObject&) = delete;

    // The module's implementation: the cached one, else a new one when the library is
    // initialised, else absent.
    std::shared_ptr<Implementation> implementation() {
        std::lock_guard guard(mutex_);
        if (alreadyCreatedImplementation_) return alreadyCreatedImplementation_;
        return createAndSetImplementationInstance();
    }

    // A facade's own initialize() calls this: it sets the module up in the graph when the
    // library is already initialised, and does nothing otherwise.
    void initializeModuleIfSdkInitialized() {
        if (!sdkInitializedUtil_->isInitlaized()) return;
        auto data = sdkInitializedUtil_->postInitializedData();
        if (!data) return;
        inititlizeModule(data->diGraph);
    }

    const std::shared_ptr<SdkInitializedUtil>& sdkInitializedUtil() const {
        return sdkInitializedUtil_;
    }

protected:
    // Sets the module up in the initialised graph. (Spelled as the library always has.)
    virtual void inititlizeModule(const std::shared_ptr<DIGraph>& /*diGraph*/) {
        moduleTopLevelObjectFatalError();
    }
    // A new implementation for the initialised graph.
    virtual std::shared_ptr<Implementation> getImplementationInstance(
        const std::shared_ptr<DIGraph>& /*diGraph*/) {
        moduleTopLevelObjectFatalError();
    }

private:
    std::shared_ptr<Implementation> createAndSetImplementationInstance() {
        if (!sdkInitializedUtil_->isInitlaized()) return nullptr;
        auto data = sdkInitializedUtil_->postInitializedData();
        if (!data) return nullptr;
        auto instance = getImplementationInstance(data->diGraph);
        inititlizeModule(data->diGraph);
        alreadyCreatedImplementation_ = instance;
        return instance;
    }

    const std::shared_ptr<SdkInitializedUtil> sdkInitializedUtil_;
    // Held under mutex_, so that two threads asking at once create one implementation. The
    // mutex is recursive: a module's set-up may ask for its facade's implementation.
    std::recursive_mutex mutex_;
    std::shared_ptr<Implementation> alreadyCreatedImplementation_;
};

}  // namespace tern
