#pragma once

#include <compare>

namespace vontu::platform {

// A point in time as Foundation keeps it: seconds since 1 January 1970 UTC, fractions allowed,
// negative before the epoch.
struct Date {
    double secondsSince1970 = 0.0;

    Date addingSeconds(double seconds) const { return Date{secondsSince1970 + seconds}; }
    auto operator<=>(const Date&) const = default;
};

}  // namespace vontu::platform
