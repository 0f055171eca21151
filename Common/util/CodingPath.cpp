#include "Common/util/CodingPath.hpp"

namespace tern {

std::string describe(const CodingPath& path) {
    if (path.empty()) return "(root)";
    std::string text;
    for (const auto& key : path) {
        if (key.intValue) {
            text += "[" + std::to_string(*key.intValue) + "]";
        } else {
            if (!text.empty()) text += ".";
            text += key.stringValue;
        }
    }
    return text;
}

CodingPath appending(const CodingPath& path, CodingKey key) {
    CodingPath longer = path;
    longer.push_back(std::move(key));
    return longer;
}

}  // namespace tern
