#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/AutoMockable.hpp"

namespace tern {

class DIGraph;
class Tern;

// What a module needs once the library is initialised.
struct PostInitializedData {
    std::string siteId;
    std::shared_ptr<DIGraph> diGraph;
};

// Tells the modules whether the library is initialised and hands them its graph. The answers
// are read from the shared Tern object every time, so they change with initialisation.
class SdkInitializedUtil : public vontu::AutoMockable {
public:
    // The shared Tern object.
    virtual std::shared_ptr<Tern> tern() = 0;
    // True exactly when the shared object holds a graph. (Spelled as the library always has.)
    virtual bool isInitlaized() = 0;
    // Absent before initialisation; else the graph and its site id, read together.
    virtual std::optional<PostInitializedData> postInitializedData() = 0;
};

}  // namespace tern
