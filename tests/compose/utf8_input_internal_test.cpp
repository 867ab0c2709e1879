// UTF-8 input to Shift_JIS: the CP932 repertoire, the GETA MARK for what has
// no form and for broken sequences, and the bound of the result.
#include "compose/utf8_input.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using kemail::utf8_to_sjis;

struct Converted {
    std::string text;
    kemail::Utf8Conversion result;
};

Converted convert(const std::string& utf8, size_t size = 256) {
    std::string dest(size, '\x7f');
    Converted c;
    c.result = utf8_to_sjis(utf8.data(), utf8.size(), dest.data(), dest.size());
    c.text = dest.substr(0, c.result.length);
    EXPECT_EQ(dest[c.result.length], '\0');
    return c;
}

TEST(Utf8ToSjis, KanjiKanaHalfWidthKatakanaAndAscii) {
    // "日本語 あア ｱ abc"
    const Converted c = convert(
        "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E \xE3\x81\x82\xE3\x82\xA2 "
        "\xEF\xBD\xB1 abc");
    EXPECT_EQ(c.text, "\x93\xFA\x96\x7B\x8C\xEA \x82\xA0\x83\x41 \xB1 abc");
    EXPECT_FALSE(c.result.replaced);
    EXPECT_FALSE(c.result.too_long);
}

TEST(Utf8ToSjis, WindowsOnlyCharactersArrive) {
    // CIRCLED DIGIT ONE and ROMAN NUMERAL ONE exist only in CP932.
    const Converted c = convert("\xE2\x91\xA0\xE2\x85\xA0");
    EXPECT_EQ(c.text, "\x87\x40\x87\x54");
    EXPECT_FALSE(c.result.replaced);
}

TEST(Utf8ToSjis, ACharacterWithoutAFormBecomesTheGetaMark) {
    // GRINNING FACE between two ASCII letters.
    const Converted c = convert("a\xF0\x9F\x98\x80z");
    EXPECT_EQ(c.text, "a\x81\xACz");
    EXPECT_TRUE(c.result.replaced);
}

TEST(Utf8ToSjis, EachBrokenByteBecomesTheGetaMark) {
    // A stray continuation byte, a lead byte without its continuation, an
    // overlong slash and an encoded surrogate.
    const Converted c = convert(
        "a\x80"
        "b\xE3"
        "c\xC0\xAF"
        "d\xED\xA0\x80");
    EXPECT_EQ(c.text,
              "a\x81\xAC"
              "b\x81\xAC"
              "c\x81\xAC\x81\xAC"
              "d\x81\xAC\x81\xAC\x81\xAC");
    EXPECT_TRUE(c.result.replaced);
}

TEST(Utf8ToSjis, ASequenceCutAtTheEndBecomesTheGetaMark) {
    const Converted c = convert("ok\xE6\x97");
    EXPECT_EQ(c.text, "ok\x81\xAC\x81\xAC");
    EXPECT_TRUE(c.result.replaced);
}

TEST(Utf8ToSjis, TheBoundCountsShiftJisBytesNotUtf8Bytes) {
    // 32 kanji are 96 UTF-8 bytes but 64 Shift_JIS bytes: they fit a
    // 64-byte subject.
    std::string kanji;
    for (int i = 0; i < 32; ++i) kanji += "\xE6\x97\xA5";
    Converted c = convert(kanji, 65);
    EXPECT_EQ(c.text.size(), 64u);
    EXPECT_FALSE(c.result.too_long);
    c = convert(kanji + "a", 65);
    EXPECT_TRUE(c.result.too_long);
    EXPECT_EQ(c.text.size(), 64u);
}

TEST(Utf8ToSjis, ADoubleByteCharacterIsNeverSplitAtTheBound) {
    const Converted c = convert("a\xE6\x97\xA5", 3);
    EXPECT_EQ(c.text, "a");
    EXPECT_TRUE(c.result.too_long);
}

TEST(Utf8ToSjis, EmptyInputAndTinyBuffers) {
    EXPECT_EQ(convert("").text, "");
    char one[1] = {'x'};
    const auto r = utf8_to_sjis("a", 1, one, 1);
    EXPECT_TRUE(r.too_long);
    EXPECT_EQ(one[0], '\0');
    const auto none = utf8_to_sjis("a", 1, nullptr, 0);
    EXPECT_TRUE(none.too_long);
}

}  // namespace
