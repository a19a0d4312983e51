#include "keys.h"

#include <gtest/gtest.h>

using namespace tool;

namespace {

// "up", "pgdn", ... and the letters themselves.
std::string Names(const std::vector<KeyPress> &keys) {
    std::string names;
    for (const KeyPress &press : keys) {
        constexpr const char *kNames[] = {"up", "down", "pgup", "pgdn", "home", "end"};
        names += names.empty() ? "" : " ";
        names += press.key == Key::kLetter ? std::string(1, press.letter) : kNames[static_cast<size_t>(press.key)];
    }
    return names;
}

const std::pair<std::string, std::string> kKeys[] = {
    {"jk?q", "j k ? q"},
    {"\x1b[A\x1b[B", "up down"},
    {"\x1bOA\x1bOB\x1bOH\x1bOF", "up down home end"},
    {"\x1b[5~\x1b[6~", "pgup pgdn"},
    {"\x1b[H\x1b[F\x1b[1~\x1b[4~\x1b[7~\x1b[8~", "home end home end home end"},
    {"\x1b[1;5A\x1b[5;2~", "up pgup"},
    {"\x1b[2~\x1b[15~\x1b[C\x1bOPq", "q"},
    {"\x1b\x1b[Aq", "up q"},
    {"\x1bq", "q"},
    {"\x1b[5\x1b[6~", "pgdn"},
    {"a\r\n\t \x7f\x04\xc3\xa4z", "a z"},
};

}  // namespace

TEST(Keys, AreReadFromWhatATerminalSends) {
    for (const auto &[bytes, names] : kKeys) {
        EXPECT_EQ(Names(KeyParser().Feed(bytes)), names);
    }
}

TEST(Keys, MayComeInPieces) {
    for (const auto &[bytes, names] : kKeys) {
        for (size_t size = 1; size <= 3; ++size) {
            KeyParser parser;
            std::vector<KeyPress> keys;
            for (size_t at = 0; at < bytes.size(); at += size) {
                for (const KeyPress &press : parser.Feed(std::string_view(bytes).substr(at, size))) {
                    keys.push_back(press);
                }
            }
            EXPECT_EQ(Names(keys), names) << size;
        }
    }
}

TEST(Keys, NoiseEnds) {
    KeyParser parser;
    EXPECT_EQ(Names(parser.Feed("\x1b[" + std::string(1000, '1') + "~")).find_first_not_of("1 ~"), std::string::npos);
    EXPECT_EQ(Names(parser.Feed("q")), "q");
}

TEST(Keys, AFileHasNone) {
    EXPECT_EQ(Keyboard(-1).Descriptor(), -1);
    Keyboard closed(12345);
    EXPECT_EQ(closed.Descriptor(), -1);
    EXPECT_TRUE(closed.Read().empty());
}
