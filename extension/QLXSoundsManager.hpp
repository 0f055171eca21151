#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vontu::extension {

// The user's notification sound per mail account, kept in the app group's shared defaults
// (written by the main app, read by the extension), and the map from a sound's display name to
// the sound file shipped with the app.
class QLXSoundsManager {
public:
    static QLXSoundsManager& sharedManager();
    static const std::map<std::string, std::string>& soundMap();

    // The display names, sorted ascending (byte order, as a case-sensitive compare).
    std::vector<std::string> availableSounds() const;
    // Stores the name as given under the lower-cased account identifier.
    void useSound(const std::string& sound, const std::optional<std::string>& session);
    // The stored name, or "Chirp" when nothing (or no account) is given.
    std::string soundForSession(const std::optional<std::string>& session) const;
    std::string soundFileForSound(const std::string& sound) const;
    std::string soundFileForSession(const std::optional<std::string>& session) const;
};

}  // namespace vontu::extension
