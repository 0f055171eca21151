#include "Common/util/LockReference.hpp"

namespace tern {

std::string_view rawValue(LockReference reference) {
    switch (reference) {
        case LockReference::queueStorage: return "queueStorage";
        case LockReference::singleScheduleTimer: return "singleScheduleTimer";
    }
    return {};
}

}  // namespace tern
