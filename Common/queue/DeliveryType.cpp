#include "Common/queue/DeliveryType.hpp"

namespace tern {

std::string_view rawValue(DeliveryType type) {
    switch (type) {
        case DeliveryType::inApp: return "in_app";
    }
    return "in_app";
}

template <>
std::optional<DeliveryType> fromRawValue<DeliveryType>(std::string_view text) {
    if (text == rawValue(DeliveryType::inApp)) return DeliveryType::inApp;
    return std::nullopt;
}

}  // namespace tern
