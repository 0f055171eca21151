#pragma once

namespace vontu {

// Marker base of every abstract interface in the system. It adds no operation; it only lets
// tooling and readers tell interfaces (which tests may replace) from concrete classes.
class AutoMockable {
public:
    virtual ~AutoMockable() = default;
};

}  // namespace vontu
