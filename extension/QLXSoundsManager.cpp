#include "extension/QLXSoundsManager.hpp"

#include "extension/SharedDefaults.hpp"
#include "extension/UnicodeText.hpp"

namespace vontu::extension {

namespace {

// Account identifiers are compared in lower case on both sides (the main app's and ours).
std::string accountKey(const std::string& session) {
    return unicode::toUtf8(unicode::lowercased(session));
}

constexpr const char* kDefaultSound = "Chirp";
// "Chirp" keeps the app's original sound file rather than one named after it.
constexpr const char* kDefaultSoundFile = "notif.aiff";
}  // namespace

QLXSoundsManager& QLXSoundsManager::sharedManager() {
    static QLXSoundsManager manager;
    return manager;
}

const std::map<std::string, std::string>& QLXSoundsManager::soundMap() {
    static const std::map<std::string, std::string> map = {
        {"Aha", "Aha.caf"},     {"Alien", "Alien.caf"},         {"Beep", "Beep.caf"},
        {"Bounce", "Bounce.caf"}, {"Chirp", "notif.aiff"},      {"Happy", "Happy.caf"},
        {"Ping Pong", "Ping Pong.caf"}, {"Tink", "Tink.caf"},   {"Triple", "Triple.caf"},
        {"Whistle", "Whistle.caf"},
    };
    return map;
}

std::vector<std::string> QLXSoundsManager::availableSounds() const {
    std::vector<std::string> names;
    for (const auto& entry : soundMap()) names.push_back(entry.first);  // std::map is sorted
    return names;
}

void QLXSoundsManager::useSound(const std::string& sound,
                                const std::optional<std::string>& session) {
    if (!session) return;
    if (auto defaults = sharedDefaults()) defaults->setObject(sound, accountKey(*session));
}

std::string QLXSoundsManager::soundForSession(const std::optional<std::string>& session) const {
    if (!session) return kDefaultSound;
    auto defaults = sharedDefaults();
    return stringForKey(defaults.get(), accountKey(*session)).value_or(kDefaultSound);
}

std::string QLXSoundsManager::soundFileForSound(const std::string& sound) const {
    auto it = soundMap().find(sound);
    return it != soundMap().end() ? it->second : kDefaultSoundFile;
}

std::string QLXSoundsManager::soundFileForSession(const std::optional<std::string>& session) const {
    return soundFileForSound(soundForSession(session));
}

}  // namespace vontu::extension
