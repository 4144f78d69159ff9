// Choosing the player by extension: the whole text after the last dot, letter case aside, with
// the platform's multibyte search.

#include <gtest/gtest.h>

#include "player/pub/PlayerRegistry.h"

namespace {

TEST(RegistryExtension, WholeTextAfterTheLastDotLetterCaseAside) {
    struct Case {
        const char* name;
        const char* ext;
        BOOL expected;
    } cases[] = {
        {"a.wav", "wav", TRUE},      {"a.WAV", "wav", TRUE},
        {"a.Mp3", "mp3", TRUE},      {"C:\\dir.x\\song.mp3", "mp3", TRUE},
        {".wav", "wav", TRUE},       {"a.wave", "wav", FALSE},
        {"a.wa", "wav", FALSE},      {"a.mp3 ", "mp3", FALSE},
        {"a.mp3.bak", "mp3", FALSE}, {"a.bak.mp3", "mp3", TRUE},
        {"amp3", "mp3", FALSE},      {"dir.mp3\\file", "mp3", FALSE},
        {"a.", "wav", FALSE},        {"", "wav", FALSE},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(CPlayerRegistry::HasExtension(c.name, c.ext), c.expected) << c.name;
    }
    EXPECT_FALSE(CPlayerRegistry::HasExtension(nullptr, "wav"));
}

}  // namespace
