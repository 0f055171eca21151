#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/Bytes.hpp"
#include "platform/Date.hpp"

namespace vontu::platform {

struct PlistValue;
using PlistArray = std::vector<PlistValue>;
using PlistDictionary = std::map<std::string, PlistValue>;

// One property-list value as a defaults suite stores it: string, integer, double, boolean,
// date, data, array or dictionary, nested to any depth.
struct PlistValue {
    using Storage = std::variant<std::string, std::int64_t, double, bool, Date, Bytes, PlistArray,
                                 PlistDictionary>;
    Storage value;

    PlistValue() : value(std::string()) {}
    PlistValue(std::string s) : value(std::move(s)) {}
    PlistValue(const char* s) : value(std::string(s)) {}
    PlistValue(std::int64_t i) : value(i) {}
    PlistValue(int i) : value(std::int64_t{i}) {}
    PlistValue(double d) : value(d) {}
    PlistValue(bool b) : value(b) {}
    PlistValue(Date d) : value(d) {}
    PlistValue(Bytes b) : value(std::move(b)) {}
    PlistValue(PlistArray a) : value(std::move(a)) {}
    PlistValue(PlistDictionary d) : value(std::move(d)) {}

    template <typename T>
    const T* as() const { return std::get_if<T>(&value); }
    template <typename T>
    bool is() const { return std::holds_alternative<T>(value); }

    bool operator==(const PlistValue&) const = default;
};

}  // namespace vontu::platform
