#include "TernTracking/ScreenViewName.hpp"

#include <string_view>

namespace tern {
namespace {

std::string removingOccurrences(std::string text, std::string_view removed) {
    for (auto at = text.find(removed); at != std::string::npos; at = text.find(removed, at)) {
        text.erase(at, removed.size());
    }
    return text;
}

}  // namespace

std::optional<std::string> screenViewName(ViewController& viewController) {
    auto name = removingOccurrences(viewController.className(), "ViewController");
    if (!name.empty()) return name;
    // An empty title names nothing either: a screen view needs a name to be told apart.
    auto title = viewController.title();
    if (title && !title->empty()) return title;
    return std::nullopt;
}

}  // namespace tern
