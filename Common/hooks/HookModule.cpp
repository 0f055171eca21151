#include "Common/hooks/HookModule.hpp"

namespace tern {

std::string_view rawValue(HookModule module) {
    switch (module) {
        case HookModule::tracking: return "tracking";
        case HookModule::messagingPush: return "messagingPush";
        case HookModule::messagingInApp: return "messagingInApp";
    }
    return {};
}

template <>
std::optional<HookModule> fromRawValue<HookModule>(std::string_view rawValue) {
    for (auto module :
         {HookModule::tracking, HookModule::messagingPush, HookModule::messagingInApp}) {
        if (tern::rawValue(module) == rawValue) return module;
    }
    return std::nullopt;
}

}  // namespace tern
