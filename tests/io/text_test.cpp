#include "io/text.h"

#include <gtest/gtest.h>

namespace {

using namespace tilegrid::io;

TEST(Printable, leaves_text_lines_and_tabs_as_they_are)
{
    for (std::string const text : {"", "a\tb\n", "Größe 3 µm", "\xe2\x82\xac \xf0\x9f\x98\x80"}) EXPECT_EQ(printable(text), text);
}

TEST(Printable, escapes_what_a_terminal_takes_for_a_command_as_json_does)
{
    EXPECT_EQ(printable("\x1b[31mred"), "\\u001b[31mred");
    EXPECT_EQ(printable(std::string("\0\r\b\x7f", 4)), "\\u0000\\u000d\\u0008\\u007f");
    EXPECT_EQ(printable("\xc2\x9b""2J"), "\\u009b2J") << "the one-byte form of ESC [";
    EXPECT_EQ(printable("\xe2\x80\xae" "gpj.exe"), "\\u202egpj.exe") << "which a terminal would show from right to left";
}

TEST(Printable, replaces_every_byte_that_is_no_utf8)
{
    const std::string gap = "\xef\xbf\xbd";
    EXPECT_EQ(printable("a\xff" "b"), "a" + gap + "b");
    EXPECT_EQ(printable("\x9b""2J"), gap + "2J") << "ESC [ of an eight-bit terminal";
    EXPECT_EQ(printable("\xc3"), gap) << "cut off";
    EXPECT_EQ(printable("\xc0\x9b"), gap + gap) << "a longer form of ESC";
    EXPECT_EQ(printable("\xe0\x80\x9b"), gap + gap + gap) << "another one";
    EXPECT_EQ(printable("\xed\xa0\x80"), gap + gap + gap) << "half of a pair";
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), gap + gap + gap + gap) << "above the last character";
}

TEST(Printable, of_a_name_is_one_line)
{
    EXPECT_EQ(printableName("fog\nverdict     good\t"), "fog\\u000averdict     good\\u0009");
}

TEST(IncompleteTail, is_what_of_a_character_is_there)
{
    const std::string face = "\xf0\x9f\x98\x80";
    for (std::size_t n = 0; n < 4; ++n) EXPECT_EQ(incompleteTail("ab" + face.substr(0, n)), n) << n;
    for (std::string const& text : {face, face + "a", std::string("\x80\x80\x80\x80"), std::string("\xff"), std::string("\x80")})
        EXPECT_EQ(incompleteTail(text), 0u);
}

}  // namespace
