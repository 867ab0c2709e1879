// Shift_JIS to JIS codes, ISO-2022-JP text, base64 and the encoded Subject.
#include "compose_support.h"

#include <random>

namespace {

using compose_test::from_iso2022;
using compose_test::sjis;

const std::string kEsc2022In = "\x1b$B";
const std::string kEsc2022Out = "\x1b(J";

std::string to_iso(const std::string& src) {
    std::string out(src.size() * 4 + 16, '\xEE');
    SMTP_toISO2022(src.c_str(), out.data());
    out.resize(std::strlen(out.c_str()));
    return out;
}

std::string subject_of(const std::string& subject) {
    std::string out(subject.size() + 2048, '\xEE');
    SMTP_makeSubject(subject.c_str(), out.data());
    out.resize(std::strlen(out.c_str()));
    return out;
}

// Decodes a header value of encoded-words and literal text (test reference).
std::string decode_base64(const std::string& text) {
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned bits = 0;
    int count = 0;
    for (char c : text) {
        if (c == '=') break;
        const size_t v = alphabet.find(c);
        EXPECT_NE(v, std::string::npos) << "not base64: " << c;
        bits = (bits << 6) | static_cast<unsigned>(v);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out.push_back(static_cast<char>((bits >> count) & 0xFF));
        }
    }
    return out;
}

std::vector<std::string> encoded_words(const std::string& value) {
    std::vector<std::string> words;
    size_t at = 0;
    while ((at = value.find("=?ISO-2022-JP?B?", at)) != std::string::npos) {
        const size_t start = at + 16;
        const size_t end = value.find("?=", start);
        EXPECT_NE(end, std::string::npos);
        words.push_back(value.substr(start, end - start));
        at = end + 2;
    }
    return words;
}

// Unfolds (a CR LF goes, its blank stays) and decodes; blanks between two
// encoded-words are dropped, as RFC 2047 says.
std::string decode_subject(const std::string& value) {
    std::string utf8;
    size_t at = 0;
    for (;;) {
        const size_t word = value.find("=?ISO-2022-JP?B?", at);
        std::string literal =
            value.substr(at, word == std::string::npos ? std::string::npos : word - at);
        for (size_t crlf; (crlf = literal.find("\r\n")) != std::string::npos;)
            literal.erase(crlf, 2);
        const bool between_words = at != 0 && word != std::string::npos;
        if (!(between_words && literal.find_first_not_of(" ") == std::string::npos))
            utf8 += literal;
        if (word == std::string::npos) break;
        const size_t end = value.find("?=", word + 16);
        utf8 += from_iso2022(decode_base64(value.substr(word + 16, end - word - 16)));
        at = end + 2;
    }
    return utf8;
}

std::string repeat(const std::string& s, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

TEST(SjisToJis, StandardCodes) {
    EXPECT_EQ(SMTP_sjistojis(0x8140), 0x2121);
    EXPECT_EQ(SMTP_sjistojis(0x82A0), 0x2422);
    EXPECT_EQ(SMTP_sjistojis(0x889F), 0x3021);
    EXPECT_EQ(SMTP_sjistojis(0xE040), 0x5F21);
    EXPECT_EQ(SMTP_sjistojis(0x9FFC), 0x5E7E);
    EXPECT_EQ(SMTP_sjistojis(0xEAA4), 0x7426);
}

TEST(SjisToJis, EveryColumnBoundary) {
    EXPECT_EQ(SMTP_sjistojis(0x817E), 0x215F);
    EXPECT_EQ(SMTP_sjistojis(0x8180), 0x2160);
    EXPECT_EQ(SMTP_sjistojis(0x819E), 0x217E);
    EXPECT_EQ(SMTP_sjistojis(0x819F), 0x2221);
    EXPECT_EQ(SMTP_sjistojis(0x81FC), 0x227E);
    EXPECT_EQ(SMTP_sjistojis(0xEFFC), 0x7E7E);
}

TEST(SjisToJis, InvalidTrailGivesTheOrOfBothBytes) {
    EXPECT_EQ(SMTP_sjistojis(0x8130), 0x81 | 0x30);
    EXPECT_EQ(SMTP_sjistojis(0x817F), 0xFF);
    EXPECT_EQ(SMTP_sjistojis(0x81FD), 0xFD);
    EXPECT_EQ(SMTP_sjistojis(0xE000), 0xE0);
    EXPECT_EQ(SMTP_sjistojis(0x9F3F), 0xBF);
}

TEST(SjisToJis, NoLeadByteGivesZero) {
    EXPECT_EQ(SMTP_sjistojis(0x4142), 0);
    EXPECT_EQ(SMTP_sjistojis(0x8040), 0);
    EXPECT_EQ(SMTP_sjistojis(0xA0A1), 0);
    EXPECT_EQ(SMTP_sjistojis(0xB140), 0);
    EXPECT_EQ(SMTP_sjistojis(0xF040), 0);
}

// Every double-byte code the platform's converter knows maps to the same
// JIS X 0208 code (EUC-JP is JIS with the high bits set).
TEST(SjisToJis, AgreesWithThePlatformConverterOnEveryCode) {
    iconv_t cd = iconv_open("EUC-JP", "SJIS");
    ASSERT_NE(cd, reinterpret_cast<iconv_t>(-1));
    int compared = 0;
    for (int lead = 0x81; lead <= 0xEF; ++lead) {
        if (lead > 0x9F && lead < 0xE0) continue;
        for (int trail = 0x40; trail <= 0xFC; ++trail) {
            if (trail == 0x7F) continue;
            char in[2] = {static_cast<char>(lead), static_cast<char>(trail)};
            unsigned char out[8] = {};
            char* ip = in;
            size_t il = 2;
            char* op = reinterpret_cast<char*>(out);
            size_t ol = sizeof out;
            iconv(cd, nullptr, nullptr, nullptr, nullptr);
            if (iconv(cd, &ip, &il, &op, &ol) == static_cast<size_t>(-1)) continue;
            if (sizeof out - ol != 2 || out[0] < 0xA1) continue;
            const int euc = (out[0] << 8) | out[1];
            EXPECT_EQ(SMTP_sjistojis((lead << 8) | trail), euc & 0x7F7F)
                << std::hex << lead << trail;
            ++compared;
        }
    }
    iconv_close(cd);
    EXPECT_GT(compared, 6800);
}

TEST(Iso2022, JapaneseCharacterBetweenTwoLetters) {
    const std::string a = sjis("あ");
    ASSERT_EQ(a, "\x82\xA0");
    EXPECT_EQ(to_iso("A" + a + "B"), "A" + kEsc2022In + "\x24\x22" + kEsc2022Out + "B");
}

TEST(Iso2022, TextEndingInJapaneseIsClosedWithRoman) {
    EXPECT_EQ(to_iso(sjis("日本")), kEsc2022In + "\x46\x7C\x4B\x5C" + kEsc2022Out);
}

TEST(Iso2022, NeverReturnsWithAscii) {
    const std::string iso = to_iso(sjis("漢字とkanaカナ、ﾊﾝｶｸ"));
    EXPECT_EQ(iso.find("\x1b(B"), std::string::npos);
}

TEST(Iso2022, LeadingDotIsDoubled) {
    EXPECT_EQ(to_iso(".hidden"), "..hidden");
    EXPECT_EQ(to_iso("a.b"), "a.b");
    // Built by appending: GCC 12 at -O2 reports a false -Wrestrict overlap in
    // operator+(const char*, std::string&&).
    std::string dot_a = ".";
    dot_a += sjis("あ");
    EXPECT_EQ(to_iso(dot_a), ".." + kEsc2022In + "\x24\x22" + kEsc2022Out);
}

TEST(Iso2022, HalfWidthKatakanaAndHighBytesPassUnchanged) {
    EXPECT_EQ(to_iso("\xB1\xB2\xDF\xA1\xF0\xFF\x80"), "\xB1\xB2\xDF\xA1\xF0\xFF\x80");
}

TEST(Iso2022, DecodesToTheOriginalText) {
    const std::string utf8 = "件名: 漢字、ひらがな、カタカナ and ASCII 123";
    EXPECT_EQ(from_iso2022(to_iso(sjis(utf8))), utf8);
}

TEST(Iso2022, InvalidTrailByteWritesANul) {
    unsigned char out[16];
    std::memset(out, 0xEE, sizeof out);
    SMTP_toISO2022("\x81\x30", reinterpret_cast<char*>(out));
    const unsigned char expected[] = {0x1B, 0x24, 0x42, 0x00, 0xB1, 0x1B, 0x28, 0x4A, 0x00, 0xEE};
    EXPECT_EQ(0, std::memcmp(out, expected, sizeof expected));
}

// A lone lead byte pairs with the terminating NUL and conversion stops there:
// the bytes after the terminator are never read.
TEST(Iso2022, LoneLeadByteStopsAtTheEnd) {
    const char src[] = "a\x81\0\x82\xA0";
    unsigned char out[16];
    std::memset(out, 0xEE, sizeof out);
    SMTP_toISO2022(src, reinterpret_cast<char*>(out));
    const unsigned char expected[] = {'a',  0x1B, 0x24, 0x42, 0x00, 0x81,
                                      0x1B, 0x28, 0x4A, 0x00, 0xEE};
    EXPECT_EQ(0, std::memcmp(out, expected, sizeof expected));
    // Also with the lead byte as the very last byte of an exact heap block.
    char* exact = static_cast<char*>(std::malloc(3));
    std::memcpy(exact, "b\x9F", 3);
    SMTP_toISO2022(exact, reinterpret_cast<char*>(out));
    std::free(exact);
    EXPECT_EQ(out[0], 'b');
    EXPECT_EQ(out[5], 0x9F);
}

TEST(Base64, ZeroToThreeBytes) {
    unsigned char in[8] = {'M', 'a', 'n'};
    char out[16];
    EXPECT_EQ(SMTP_toBase64(in, out, 0), 0);
    EXPECT_STREQ(out, "");
    std::memcpy(in, "Man", 3);
    EXPECT_EQ(SMTP_toBase64(in, out, 1), 4);
    EXPECT_STREQ(out, "TQ==");
    std::memcpy(in, "Man", 3);
    EXPECT_EQ(SMTP_toBase64(in, out, 2), 4);
    EXPECT_STREQ(out, "TWE=");
    std::memcpy(in, "Man", 3);
    EXPECT_EQ(SMTP_toBase64(in, out, 3), 4);
    EXPECT_STREQ(out, "TWFu");
}

TEST(Base64, Rfc4648Vectors) {
    EXPECT_EQ(compose_test::base64_of("f"), "Zg==");
    EXPECT_EQ(compose_test::base64_of("fo"), "Zm8=");
    EXPECT_EQ(compose_test::base64_of("foo"), "Zm9v");
    EXPECT_EQ(compose_test::base64_of("foob"), "Zm9vYg==");
    EXPECT_EQ(compose_test::base64_of("fooba"), "Zm9vYmE=");
    EXPECT_EQ(compose_test::base64_of("foobar"), "Zm9vYmFy");
    EXPECT_EQ(compose_test::base64_of(std::string("\xFB\xFF\xBF", 3)), "+/+/");
}

TEST(Base64, PadsTheInputInPlace) {
    unsigned char in[8] = {'a', 'b', 'X', 'Y', 'Z', 'Q', 'R', 'S'};
    char out[16];
    EXPECT_EQ(SMTP_toBase64(in, out, 2), 4);
    EXPECT_EQ(in[2], 0);
    EXPECT_EQ(in[3], 0);
    EXPECT_EQ(in[4], 0);
    EXPECT_EQ(in[5], 'Q');
}

TEST(Base64, RoundTripsEveryLengthAndByte) {
    std::mt19937 random(7);
    for (int length = 0; length < 300; ++length) {
        std::string bytes(static_cast<size_t>(length), '\0');
        for (auto& b : bytes) b = static_cast<char>(random() & 0xFF);
        const std::string text = compose_test::base64_of(bytes);
        EXPECT_EQ(text.size(), static_cast<size_t>(4 * ((length + 2) / 3)));
        EXPECT_EQ(decode_base64(text), bytes) << length;
    }
}

TEST(Subject, AsciiIsReturnedByteForByteHoweverLong) {
    const std::string subject = repeat("Monthly report of host 42; ", 200);
    EXPECT_EQ(subject_of(subject), subject);
    EXPECT_EQ(subject_of(""), "");
}

TEST(Subject, HalfWidthKatakanaOnlyIsWrittenRaw) {
    const std::string katakana = sjis("ﾃｽﾄ ﾒｰﾙ");
    EXPECT_EQ(subject_of(katakana), katakana);
}

TEST(Subject, NullSubjectIsEmpty) {
    char out[8] = "xxxxxxx";
    SMTP_makeSubject(nullptr, out);
    EXPECT_STREQ(out, "");
}

TEST(Subject, TwentyCharactersGiveWordsOfTwelveAndEight) {
    const std::string utf8 = "一二三四五六七八九十壱弐参四五六七八九拾";
    const std::string value = subject_of(sjis(utf8));
    const size_t fold = value.find("\r\n ");
    ASSERT_NE(fold, std::string::npos);
    EXPECT_EQ(value.find("\r\n ", fold + 1), std::string::npos);
    const auto words = encoded_words(value);
    ASSERT_EQ(words.size(), 2u);
    EXPECT_EQ(words[0].size(), 40u);
    const std::string first = decode_base64(words[0]);
    const std::string second = decode_base64(words[1]);
    EXPECT_EQ(first.size(), 3u + 24u + 3u);
    EXPECT_EQ(second.size(), 3u + 16u + 3u);
    EXPECT_EQ(first.substr(0, 3), kEsc2022In);
    EXPECT_EQ(first.substr(27), kEsc2022Out);
    EXPECT_EQ(value, "=?ISO-2022-JP?B?" + words[0] + "?=\r\n =?ISO-2022-JP?B?" + words[1] + "?=");
    EXPECT_EQ(decode_subject(value), utf8);
}

TEST(Subject, MixedTextKeepsAsciiLiteral) {
    const std::string value = subject_of("Re: " + sjis("障害通知") + " (host1)");
    EXPECT_EQ(value.substr(0, 4), "Re: ");
    EXPECT_EQ(value.find("\r\n"), std::string::npos);
    EXPECT_EQ(value.substr(value.size() - 8), " (host1)");
    EXPECT_EQ(decode_subject(value), "Re: 障害通知 (host1)");
}

TEST(Subject, RunNearTheLineEndStartsOnANewLine) {
    const std::string ascii(50, 'x');
    const std::string value = subject_of(ascii + sjis("警告"));
    EXPECT_EQ(value.substr(0, 53), ascii + "\r\n ");
    // Unfolded, the fold leaves its blank before the Japanese word.
    EXPECT_EQ(decode_subject(value), ascii + " 警告");
}

// Kept: after a run the ASCII text is folded at column 76 even inside a word.
TEST(Subject, LongAsciiTailIsFoldedMidWord) {
    const std::string tail(60, 'y');
    const std::string value = subject_of(sjis("件") + tail);
    const auto words = encoded_words(value);
    ASSERT_EQ(words.size(), 1u);
    // The run takes 30 columns, so 47 letters fill the line up to column 77.
    const std::string expected_tail = std::string(47, 'y') + "\r\n " + std::string(13, 'y');
    EXPECT_EQ(value.substr(value.size() - expected_tail.size()), expected_tail);
}

TEST(Subject, OverlongSubjectEncodesWhatFitsAsWholeWords) {
    std::string utf8;
    for (int i = 0; i < 200; ++i) utf8 += (i % 2 ? "漢" : "字");
    const std::string value = subject_of(sjis(utf8));
    EXPECT_LT(value.size(), 1040u);
    const std::string decoded = decode_subject(value);
    // 255 bytes of ISO-2022-JP hold the escapes and 124 characters.
    EXPECT_EQ(decoded, utf8.substr(0, 124 * 3));
    for (const auto& word : encoded_words(value)) {
        const std::string jis = decode_base64(word);
        EXPECT_EQ(jis.substr(0, 3), kEsc2022In);
        EXPECT_EQ(jis.substr(jis.size() - 3), kEsc2022Out);
    }
}

// Whatever the mix of letters, kana and half-width katakana, the encoded
// subject fits the 1040-byte buffer the header writer gives it.
TEST(Subject, EncodedFormNeverPassesTheHeaderBuffer) {
    std::mt19937 random(11);
    const std::string pieces[] = {"a", " ", sjis("漢"), sjis("ｶ"), sjis("あ")};
    size_t longest = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string subject;
        const int length = 1 + static_cast<int>(random() % 300);
        for (int i = 0; i < length; ++i) subject += pieces[random() % 5];
        subject += pieces[2];
        std::vector<char> out(1040 + 64, '\xEE');
        SMTP_makeSubject(subject.c_str(), out.data());
        const size_t n = std::strlen(out.data());
        longest = std::max(longest, n);
        ASSERT_LT(n, 1040u);
        for (size_t k = 1040; k < out.size(); ++k) ASSERT_EQ(out[k], '\xEE');
    }
    // The alternating pattern is the most expensive one.
    std::string alternating;
    for (int i = 0; i < 150; ++i) {
        alternating += "a";
        alternating += sjis("漢");
    }
    EXPECT_LT(subject_of(alternating).size(), 1040u);
    EXPECT_GT(longest, 700u);
}

TEST(Subject, InvalidTrailByteEndsTheText) {
    const std::string value = subject_of("ab\x81\x30" + sjis("漢"));
    EXPECT_EQ(value.substr(0, 2), "ab");
    const auto words = encoded_words(value);
    ASSERT_EQ(words.size(), 1u);
    EXPECT_EQ(decode_base64(words[0]), kEsc2022In);
}

}  // namespace
