#include "Common/util/LockReference.hpp"

namespace tern {

std::string_view rawValue(LockReference reference) {
    switch (reference) {
        case LockReference::queueStorage: return "queueStorage";
        case LockReference::singleScheduleTimer: return "singleScheduleTimer";
    }
    return {};
}

template <>
std::optional<LockReference> fromRawValue<LockReference>(std::string_view rawValue) {
    for (auto reference : {LockReference::queueStorage, LockReference::singleScheduleTimer}) {
        if (tern::rawValue(reference) == rawValue) return reference;
    }
    return std::nullopt;
}

}  // namespace tern
