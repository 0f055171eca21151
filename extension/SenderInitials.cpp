#include "extension/SenderInitials.hpp"

#include "extension/TextPieces.hpp"
#include "extension/UnicodeText.hpp"

namespace vontu::extension {

namespace {

std::string initialsOfName(const std::string& name) {
    std::string initials;
    int found = 0;
    for (const auto& word : componentsSeparatedBy(name, ' ')) {
        if (word.empty()) continue;
        // Only the first UTF-16 unit counts: a word that starts with an emoji is skipped.
        char16_t first = unicode::toUtf16(word).front();
        if (!unicode::isLetter(first)) continue;
        initials += unicode::toUtf8(unicode::uppercased(first));
        if (++found == 2) break;
    }
    return initials;
}

}  // namespace

std::string senderInitials(const std::optional<std::string>& name,
                           const std::optional<std::string>& mailbox) {
    std::string initials = name ? initialsOfName(*name) : std::string();
    // The stand-in keeps its case on purpose: "jane@example.com" alone gives "j".
    if (initials.empty() && mailbox && unicode::toUtf16(*mailbox).size() >= 2) {
        initials = unicode::firstCharacter(*mailbox);
    }
    return initials;
}

}  // namespace vontu::extension
