#include "Common/queue/RecordDescriptionText.hpp"

#include <fmt/format.h>

namespace tern {

std::string quotedDescription(const std::string& text) {
    std::string quoted = "\"";
    for (char c : text) {
        switch (c) {
            case '"': quoted += "\\\""; break;
            case '\\': quoted += "\\\\"; break;
            case '\n': quoted += "\\n"; break;
            case '\r': quoted += "\\r"; break;
            case '\t': quoted += "\\t"; break;
            case '\0': quoted += "\\0"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    quoted += fmt::format("\\u{{{:x}}}", static_cast<unsigned char>(c));
                } else {
                    quoted += c;
                }
        }
    }
    return quoted + "\"";
}

std::string listDescription(const std::vector<std::string>& texts) {
    std::string description = "[";
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (i > 0) description += ", ";
        description += quotedDescription(texts[i]);
    }
    return description + "]";
}

std::string optionalDescription(const std::optional<std::string>& innerDescription) {
    return innerDescription ? "Optional(" + *innerDescription + ")" : "nil";
}

}  // namespace tern
