#include "Common/util/DoubleDescription.hpp"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace tern {

namespace {

// Shortest round-trip digits of |value| (> 0, finite) and the power of ten of the first digit:
// value = 0.d1d2d3... * 10^exponent (so 30 gives "3" and 2, 0.5 gives "5" and 0).
struct Decomposed {
    std::string digits;
    int exponent = 0;
};

Decomposed decompose(double magnitude) {
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, magnitude,
                                   std::chars_format::scientific);
    const std::string_view text(buffer, ec == std::errc() ? static_cast<std::size_t>(end - buffer)
                                                          : 0);
    // text is "d[.ddd]e[+-]xx".
    Decomposed result;
    const auto e = text.find('e');
    for (char c : text.substr(0, e)) {
        if (c != '.') result.digits.push_back(c);
    }
    if (e != std::string_view::npos) {
        int scientificExponent = 0;
        auto exponentText = text.substr(e + 1);
        if (!exponentText.empty() && exponentText.front() == '+') exponentText.remove_prefix(1);
        std::from_chars(exponentText.data(), exponentText.data() + exponentText.size(),
                        scientificExponent);
        result.exponent = scientificExponent + 1;
    }
    while (result.digits.size() > 1 && result.digits.back() == '0') result.digits.pop_back();
    return result;
}

std::string exponentForm(const Decomposed& number) {
    std::string text(1, number.digits.front());
    if (number.digits.size() > 1) text += "." + number.digits.substr(1);
    const int exponent = number.exponent - 1;
    text += exponent < 0 ? "e-" : "e+";
    const int magnitude = std::abs(exponent);
    if (magnitude < 10) text += '0';
    text += std::to_string(magnitude);
    return text;
}

std::string decimalForm(const Decomposed& number) {
    const auto& digits = number.digits;
    if (number.exponent <= 0) {
        return "0." + std::string(static_cast<std::size_t>(-number.exponent), '0') + digits;
    }
    const auto integerDigits = static_cast<std::size_t>(number.exponent);
    if (digits.size() <= integerDigits) {
        return digits + std::string(integerDigits - digits.size(), '0') + ".0";
    }
    return digits.substr(0, integerDigits) + "." + digits.substr(integerDigits);
}

}  // namespace

std::string doubleDescription(double value) {
    if (std::isnan(value)) return "nan";
    const std::string sign = std::signbit(value) ? "-" : "";
    if (std::isinf(value)) return sign + "inf";
    if (value == 0.0) return sign + "0.0";

    const double magnitude = std::fabs(value);
    const Decomposed number = decompose(magnitude);
    const bool useExponent = number.exponent < -3 || magnitude > 0x1.0p54;
    return sign + (useExponent ? exponentForm(number) : decimalForm(number));
}

}  // namespace tern
