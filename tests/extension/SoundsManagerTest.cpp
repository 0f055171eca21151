#include <gtest/gtest.h>

#include "extension/QLXSoundsManager.hpp"
#include "extension/SharedDefaults.hpp"
#include "tests/support/TestEnv.hpp"

namespace vontu::extension {
namespace {

TEST(QLXSoundsManager, MapsChoicesPerAccountWithTheirFallbacks) {
    vontu::testing::TestEnv env;
    auto& sounds = QLXSoundsManager::sharedManager();
    EXPECT_EQ(&sounds, &QLXSoundsManager::sharedManager());
    EXPECT_EQ(sounds.availableSounds(),
              (std::vector<std::string>{"Aha", "Alien", "Beep", "Bounce", "Chirp", "Happy",
                                        "Ping Pong", "Tink", "Triple", "Whistle"}));

    // Nothing stored: the default sound and its older file.
    EXPECT_EQ(sounds.soundForSession("new@example.com"), "Chirp");
    EXPECT_EQ(sounds.soundFileForSession("new@example.com"), "notif.aiff");
    EXPECT_EQ(sounds.soundFileForSession(std::nullopt), "notif.aiff");

    // Keys are lower-cased on both sides.
    sounds.useSound("Ping Pong", "Mixed@Example.COM");
    EXPECT_EQ(sounds.soundForSession("mixed@example.com"), "Ping Pong");
    EXPECT_EQ(sounds.soundFileForSession("MIXED@example.com"), "Ping Pong.caf");
    EXPECT_TRUE(sharedDefaults()->objectForKey("mixed@example.com"));

    // Unknown names are stored as given and fall back to the default file.
    for (const char* unknown : {"null", "Nope", ""}) {
        sounds.useSound(unknown, "odd@example.com");
        EXPECT_EQ(sounds.soundForSession("odd@example.com"), unknown);
        EXPECT_EQ(sounds.soundFileForSession("odd@example.com"), "notif.aiff");
    }
}

}  // namespace
}  // namespace vontu::extension
