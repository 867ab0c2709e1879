// EUC-JP <-> Shift_JIS converters and the locale tables.
#include "compose_support.h"

namespace {

using compose_test::convert;

const iconv_t kNone = reinterpret_cast<iconv_t>(-1);

std::string euc(const std::string& utf8) { return convert(utf8, "EUC-JP", "UTF-8"); }

struct Converted {
    int result;
    std::string out;
    unsigned int length;
};

Converted run(int (*fn)(iconv_t, unsigned, const char*, unsigned, char*, unsigned*),
              const char* from, const char* to, const std::string& in, unsigned capacity) {
    iconv_t cd = Cnv_open(from, to);
    EXPECT_NE(cd, kNone);
    std::vector<char> out(capacity + 32, '\0');
    unsigned int length = 777;
    Converted c{fn(cd, static_cast<unsigned>(in.size()), in.c_str(), capacity, out.data(), &length),
                {},
                length};
    Cnv_close(cd);
    for (size_t k = capacity; k < out.size(); ++k)
        EXPECT_EQ(out[k], '\0') << "written past the capacity";
    c.out.assign(out.data(), std::min<size_t>(capacity, std::strlen(out.data())));
    return c;
}

TEST(CnvOpen, OnlyEucJpAndSjisAreAccepted) {
    iconv_t cd = Cnv_open("SJIS", "eucJP");
    EXPECT_NE(cd, kNone);
    Cnv_close(cd);
    cd = Cnv_open("eucJP", "SJIS");
    EXPECT_NE(cd, kNone);
    Cnv_close(cd);
    for (const char* name :
         {"EUC-JP", "EUCJP", "eucjp", "SHIFT_JIS", "sjis", "Shift_JIS", "UTF-8", ""}) {
        EXPECT_EQ(Cnv_open(name, "SJIS"), kNone) << name;
        EXPECT_EQ(Cnv_open("eucJP", name), kNone) << name;
    }
    EXPECT_EQ(Cnv_open(nullptr, "SJIS"), kNone);
    EXPECT_EQ(Cnv_open("eucJP", nullptr), kNone);
}

TEST(CnvOpen, SameNameTwiceIsNotRefused) {
    iconv_t cd = Cnv_open("SJIS", "SJIS");
    EXPECT_NE(cd, kNone);
    Cnv_close(cd);
}

TEST(CnvClose, NoDescriptorIsIgnored) {
    Cnv_close(kNone);
    SUCCEED();
}

TEST(CnvEucToSjis, ConvertsKanjiKanaKatakanaAndAscii) {
    const std::string utf8 = "漢字 ひらがな カタカナ ﾊﾝｶｸ ABC 123";
    const Converted c = run(Cnv_euctosjis, "eucJP", "SJIS", euc(utf8), 256);
    EXPECT_EQ(c.result, static_cast<int>(compose_test::sjis(utf8).size()));
    EXPECT_EQ(c.length, static_cast<unsigned>(c.result));
    EXPECT_EQ(c.out, compose_test::sjis(utf8));
}

TEST(CnvSjisToEuc, ConvertsBackAndWidensHalfWidthKatakana) {
    const std::string utf8 = "ﾊﾝｶｸ";
    const Converted c = run(Cnv_sjistoeuc, "SJIS", "eucJP", compose_test::sjis(utf8), 256);
    EXPECT_EQ(c.result, 8);
    EXPECT_EQ(c.out, euc(utf8));
}

TEST(CnvEucToSjis, SmallCapacityDeliversThePrefixAndMinus2) {
    const std::string in = euc("漢字かな");
    const Converted c = run(Cnv_euctosjis, "eucJP", "SJIS", in, 5);
    EXPECT_EQ(c.result, -2);
    EXPECT_EQ(c.out, compose_test::sjis("漢字"));
    EXPECT_EQ(c.length, 4u);
}

TEST(CnvEucToSjis, InvalidFirstByteGivesTheHexTextAndMinus2) {
    const std::string in =
        "\x80\xA4\xA2"
        "abc";
    Converted c = run(Cnv_euctosjis, "eucJP", "SJIS", in, 100);
    EXPECT_EQ(c.result, -2);
    EXPECT_EQ(c.out, "80a4a2616263");
    EXPECT_EQ(c.length, 12u);
    // Cut to the capacity.
    c = run(Cnv_euctosjis, "eucJP", "SJIS", in, 5);
    EXPECT_EQ(c.result, -2);
    EXPECT_EQ(c.out, "80a4a");
    EXPECT_EQ(c.length, 5u);
}

// The hexadecimal text is twice the input: it needs its own buffer, far
// larger than the work buffer of the conversion.
TEST(CnvEucToSjis, LongInvalidInputIsCutToTheCapacity) {
    std::string in(3000, '\xFF');
    Converted c = run(Cnv_euctosjis, "eucJP", "SJIS", in, 6000);
    EXPECT_EQ(c.result, -2);
    EXPECT_EQ(c.out, std::string(6000, 'f').substr(0, 6000));
    EXPECT_EQ(c.length, 6000u);
    c = run(Cnv_sjistoeuc, "SJIS", "eucJP", std::string(2000, '\x80'), 100);
    EXPECT_EQ(c.result, -2);
    EXPECT_EQ(c.out.size(), 100u);
    EXPECT_EQ(c.out.substr(0, 4), "8080");
}

TEST(CnvEucToSjis, InvalidAfterAConvertedPrefixDeliversThePrefix) {
    const std::string in = euc("漢字") + "\xFF\xFF";
    const Converted c = run(Cnv_euctosjis, "eucJP", "SJIS", in, 100);
    EXPECT_EQ(c.result, -2);
    EXPECT_EQ(c.out, compose_test::sjis("漢字"));
}

TEST(CnvEucToSjis, BadArgumentsGiveMinus1) {
    char out[8];
    unsigned int length = 5;
    iconv_t cd = Cnv_open("eucJP", "SJIS");
    EXPECT_EQ(Cnv_euctosjis(cd, 1, nullptr, 8, out, &length), -1);
    EXPECT_EQ(Cnv_euctosjis(cd, 1, "a", 8, nullptr, &length), -1);
    EXPECT_EQ(Cnv_euctosjis(kNone, 1, "a", 8, out, &length), -1);
    EXPECT_EQ(Cnv_sjistoeuc(kNone, 1, "a", 8, out, &length), -1);
    Cnv_close(cd);
}

TEST(CnvEucToSjis, EmptyInputDeliversNothing) {
    const Converted c = run(Cnv_euctosjis, "eucJP", "SJIS", "", 10);
    EXPECT_EQ(c.result, 0);
    EXPECT_EQ(c.length, 0u);
}

TEST(CnvTocode, LowercaseHexHighNibbleFirst) {
    char out[16];
    Cnv_tocode("\x01\xAB\xff z", out);
    EXPECT_STREQ(out, "01abff207a");
    Cnv_tocode("", out);
    EXPECT_STREQ(out, "");
}

TEST(LocaleTables, EucTableRowsInOrder) {
    const std::pair<unsigned, const char*> rows[] = {
        {1, "ja_JP.euc"}, {1, "eucJP"},      {1, "EUC"},         {1, "euc"}, {1, "ja"},
        {1, "ja_JP"},     {1, "ja_JP.ujis"}, {2, "ja_JP.eucJP"}, {0, ""}};
    for (size_t i = 0; i < 9; ++i) {
        EXPECT_EQ(stEucLangInfo[i].ulKind, rows[i].first) << i;
        EXPECT_STREQ(stEucLangInfo[i].szName, rows[i].second) << i;
        for (size_t k = std::strlen(rows[i].second); k < 32; ++k)
            EXPECT_EQ(stEucLangInfo[i].szName[k], '\0');
    }
}

TEST(LocaleTables, SjisTableRowsInOrder) {
    const std::pair<unsigned, const char*> rows[] = {
        {1, "ja_JP.PCK"}, {1, "SJIS"}, {1, "PCK"}, {1, "ja_JP.SJIS"}, {0, ""}};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(stSjisLangInfo[i].ulKind, rows[i].first) << i;
        EXPECT_STREQ(stSjisLangInfo[i].szName, rows[i].second) << i;
    }
    EXPECT_EQ(sizeof(LangInfo), 36u);
}

}  // namespace
