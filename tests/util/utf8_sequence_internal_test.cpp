// The one rule of well-formed UTF-8 that the library's UTF-8 input and
// kemail-send both use: RFC 3629's table of well-formed byte sequences, at
// each of its boundaries.
#include "util/utf8_sequence.h"

#include <gtest/gtest.h>

#include <string>

namespace {

size_t length_of(const std::string& bytes) {
    return kemail::utf8_sequence_length(reinterpret_cast<const unsigned char*>(bytes.data()),
                                        bytes.size());
}

TEST(Utf8Sequence, AsciiIsOneByteNulIncluded) {
    EXPECT_EQ(length_of(std::string("\0", 1)), 1u);
    EXPECT_EQ(length_of("A"), 1u);
    EXPECT_EQ(length_of("\x7F"), 1u);
}

TEST(Utf8Sequence, WellFormedSequencesAtEveryBoundaryOfTheTable) {
    EXPECT_EQ(length_of("\xC2\x80"), 2u);          // U+0080
    EXPECT_EQ(length_of("\xDF\xBF"), 2u);          // U+07FF
    EXPECT_EQ(length_of("\xE0\xA0\x80"), 3u);      // U+0800
    EXPECT_EQ(length_of("\xE3\x81\x82"), 3u);      // U+3042 HIRAGANA LETTER A
    EXPECT_EQ(length_of("\xED\x9F\xBF"), 3u);      // U+D7FF
    EXPECT_EQ(length_of("\xEE\x80\x80"), 3u);      // U+E000
    EXPECT_EQ(length_of("\xEF\xBF\xBF"), 3u);      // U+FFFF
    EXPECT_EQ(length_of("\xF0\x90\x80\x80"), 4u);  // U+10000
    EXPECT_EQ(length_of("\xF4\x8F\xBF\xBF"), 4u);  // U+10FFFF
}

TEST(Utf8Sequence, OnlyTheFirstSequenceCounts) {
    EXPECT_EQ(length_of("\xE3\x81\x82\xE3\x81\x84"), 3u);
    EXPECT_EQ(length_of("ab"), 1u);
}

TEST(Utf8Sequence, OverlongFormsAreRefused) {
    EXPECT_EQ(length_of("\xC0\xAF"), 0u);
    EXPECT_EQ(length_of("\xC1\xBF"), 0u);
    EXPECT_EQ(length_of("\xE0\x9F\xBF"), 0u);
    EXPECT_EQ(length_of("\xF0\x8F\xBF\xBF"), 0u);
}

TEST(Utf8Sequence, SurrogatesAndCodePointsAboveU10FFFFAreRefused) {
    EXPECT_EQ(length_of("\xED\xA0\x80"), 0u);  // U+D800
    EXPECT_EQ(length_of("\xED\xBF\xBF"), 0u);  // U+DFFF
    EXPECT_EQ(length_of("\xF4\x90\x80\x80"), 0u);
    EXPECT_EQ(length_of("\xF5\x80\x80\x80"), 0u);
    EXPECT_EQ(length_of("\xFF"), 0u);
}

TEST(Utf8Sequence, StrayAndBrokenContinuationBytesAreRefused) {
    EXPECT_EQ(length_of("\x80"), 0u);
    EXPECT_EQ(length_of("\xBF"), 0u);
    EXPECT_EQ(length_of("\xE3\x41\x82"), 0u);
    EXPECT_EQ(length_of("\xE3\x81\xC0"), 0u);
    EXPECT_EQ(length_of("\xF0\x90\x80\x7F"), 0u);
}

// A sequence cut by the end of the input is not read past that end.
TEST(Utf8Sequence, ASequenceCutByTheEndIsRefused) {
    const unsigned char bytes[] = {0xF0, 0x90, 0x80, 0x80};
    for (size_t available = 0; available < sizeof bytes; ++available)
        EXPECT_EQ(kemail::utf8_sequence_length(bytes, available), 0u) << available;
    EXPECT_EQ(kemail::utf8_sequence_length(bytes, sizeof bytes), 4u);
}

}  // namespace
