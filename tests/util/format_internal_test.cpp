// The bounded formatter: exact fit, one byte over, size 0 and 1, both
// overflow modes.
#include "util/format.h"

#include <gtest/gtest.h>

#include <cstring>

using kemail::format_into;
using kemail::Overflow;

// Moved here from the composition's tests when its own line formatter gave
// way to this one.
TEST(FormatInto, CutStoresWhatFitsAndReportsTheStoredLength) {
    char out[8];
    EXPECT_EQ(kemail::format_into(out, sizeof out, Overflow::Cut, "%s", "abc"), 3);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(kemail::format_into(out, sizeof out, Overflow::Cut, "%s", "abcdefghij"), 7);
    EXPECT_STREQ(out, "abcdefg");
    EXPECT_EQ(kemail::format_into(out, 1, Overflow::Cut, "%s", "abc"), 0);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(kemail::format_into(out, 0, Overflow::Cut, "%s", "abc"), 0);
}

TEST(FormatInto, TextThatFitsIsStoredWhole) {
    char out[8];
    EXPECT_EQ(format_into(out, sizeof out, Overflow::Refuse, "%s-%d", "ab", 12), 5);
    EXPECT_STREQ(out, "ab-12");
    EXPECT_EQ(format_into(out, sizeof out, Overflow::Cut, "%s-%d", "ab", 12), 5);
    EXPECT_STREQ(out, "ab-12");
}

TEST(FormatInto, ExactFitLeavesRoomForTheNul) {
    char out[6];
    EXPECT_EQ(format_into(out, sizeof out, Overflow::Refuse, "%s", "abcde"), 5);
    EXPECT_STREQ(out, "abcde");
}

TEST(FormatInto, OneByteOverIsCutOrRefused) {
    char out[6];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(format_into(out, sizeof out, Overflow::Cut, "%s", "abcdef"), 5);
    EXPECT_STREQ(out, "abcde");
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(format_into(out, sizeof out, Overflow::Refuse, "%s", "abcdef"), -1);
    EXPECT_STREQ(out, "");
}

TEST(FormatInto, SizeOneHoldsOnlyTheNul) {
    char out[1] = {'x'};
    EXPECT_EQ(format_into(out, 1, Overflow::Cut, "%s", "abc"), 0);
    EXPECT_EQ(out[0], '\0');
    out[0] = 'x';
    EXPECT_EQ(format_into(out, 1, Overflow::Refuse, "%s", "abc"), -1);
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(format_into(out, 1, Overflow::Refuse, "%s", ""), 0);
}

TEST(FormatInto, SizeZeroWritesNothing) {
    char out[1] = {'x'};
    EXPECT_EQ(format_into(out, 0, Overflow::Cut, "%s", "abc"), 0);
    EXPECT_EQ(format_into(out, 0, Overflow::Refuse, "%s", "abc"), -1);
    EXPECT_EQ(out[0], 'x');
    EXPECT_EQ(format_into(nullptr, 0, Overflow::Cut, "%s", "abc"), 0);
}

TEST(FormatInto, NothingIsWrittenPastTheBuffer) {
    char out[16];
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(format_into(out, 8, Overflow::Cut, "%0100d", 7), 7);
    for (size_t i = 8; i < sizeof out; ++i) EXPECT_EQ(out[i], '#') << i;
}
