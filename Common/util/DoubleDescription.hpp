#pragma once

#include <string>

namespace tern {

// A double as the library's log lines show it, the way Swift prints a Double: the shortest text
// that reads back as the same value, always with a fractional part in decimal form ("30.0",
// "0.5", "0.0001"), and in exponent form below 0.0001 or above 2^54 ("1e-05", "2.5e+20").
// Infinities print as "inf" and "-inf", NaN as "nan".
std::string doubleDescription(double value);

}  // namespace tern
