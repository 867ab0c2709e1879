// Reading private profiles: the line syntax, and the string, int and hex
// look-ups with their kept asymmetries.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "kemail.h"
#include "support/temp_dir.h"
#include "util/util_test_helpers.h"

namespace {

using kemail_test::TempDir;
using util_test::open_profile_text;
using util_test::profile_value;

class ProfileRead : public ::testing::Test {
protected:
    ProfileHandle* open(const std::string& text) {
        close();
        handle_ = open_profile_text(dir_, text);
        return handle_;
    }
    void close() {
        if (handle_ != nullptr) {
            EXPECT_EQ(Com_ClosePrivateProfile(handle_, nullptr), 0);
        }
        handle_ = nullptr;
    }
    ~ProfileRead() override { close(); }

    TempDir dir_;
    ProfileHandle* handle_ = nullptr;
};

TEST_F(ProfileRead, BlanksAroundTheEqualsSignBelongToKeyAndValue) {
    ProfileHandle* profile = open("[S]\nkey = value\n");
    ASSERT_NE(profile, nullptr);
    char out[32];
    EXPECT_EQ(Com_GetPrivateProfileString(profile, "S", "key ", "", out, sizeof out), 6);
    EXPECT_STREQ(out, " value");
    EXPECT_EQ(profile_value(profile, "S", "key"), "<default>");
}

TEST_F(ProfileRead, LeadingBlanksStayInTheKey) {
    ProfileHandle* profile = open("[S]\n  key=value\n");
    EXPECT_EQ(profile_value(profile, "S", "  key"), "value");
    EXPECT_EQ(profile_value(profile, "S", "key"), "<default>");
}

TEST_F(ProfileRead, LeadingEqualsSignIsIgnoredAndFurtherEqualsSignsBelongToTheValue) {
    ProfileHandle* profile = open("[S]\n=x\na=b=c\n");
    EXPECT_EQ(profile_value(profile, "S", ""), "<default>");
    EXPECT_EQ(profile_value(profile, "S", "a"), "b=c");
    // Only the very first byte counts: after blanks an '=' starts a value.
    open("[S]\n  =x\n");
    EXPECT_EQ(profile_value(handle_, "S", "  "), "x");
}

TEST_F(ProfileRead, SectionLineIgnoresTrailingTextAndNeedsItsBracket) {
    ProfileHandle* profile = open("[Sec] trailing words\nx=1\n[Broken\ny=2\n");
    EXPECT_EQ(profile_value(profile, "Sec", "x"), "1");
    // The unclosed line opens nothing, so y stays under Sec.
    EXPECT_EQ(profile_value(profile, "Sec", "y"), "2");
    EXPECT_EQ(profile_value(profile, "Broken", "y"), "<default>");
    EXPECT_EQ(profile_value(profile, "[Broken", "y"), "<default>");
}

TEST_F(ProfileRead, SectionNameIsTakenAsItStands) {
    ProfileHandle* profile = open("  [ Spaced ]\nk=v\n[]\ne=empty\n");
    EXPECT_EQ(profile_value(profile, " Spaced ", "k"), "v");
    EXPECT_EQ(profile_value(profile, "Spaced", "k"), "<default>");
    EXPECT_EQ(profile_value(profile, "", "e"), "empty");
}

TEST_F(ProfileRead, NamesAreCaseSensitive) {
    ProfileHandle* profile = open("[Sec]\nKey=v\n");
    EXPECT_EQ(profile_value(profile, "Sec", "Key"), "v");
    EXPECT_EQ(profile_value(profile, "sec", "Key"), "<default>");
    EXPECT_EQ(profile_value(profile, "Sec", "key"), "<default>");
}

TEST_F(ProfileRead, TabBeforeSemicolonIsNoCommentButBlankIs) {
    ProfileHandle* profile = open("[S]\n\t;tabbed=1\n\t;no equals sign\n ;blank=2\n;plain=3\n");
    EXPECT_EQ(profile_value(profile, "S", "\t;tabbed"), "1");
    EXPECT_EQ(profile_value(profile, "S", " ;blank"), "<default>");
    EXPECT_EQ(profile_value(profile, "S", ";plain"), "<default>");
    EXPECT_EQ(profile_value(profile, "S", "\t;no equals sign"), "<default>");
}

TEST_F(ProfileRead, OnlyTheFirstOfTwoSameNamedSectionsIsSearched) {
    ProfileHandle* profile = open("[S]\na=1\n[T]\n[S]\na=2\nb=3\n");
    EXPECT_EQ(profile_value(profile, "S", "a"), "1");
    EXPECT_EQ(profile_value(profile, "S", "b"), "<default>");
}

TEST_F(ProfileRead, DuplicateKeysFindTheFirst) {
    ProfileHandle* profile = open("[S]\nk=first\nk=second\n");
    EXPECT_EQ(profile_value(profile, "S", "k"), "first");
}

TEST_F(ProfileRead, EntriesBeforeTheFirstSectionAreIgnored) {
    ProfileHandle* profile = open("orphan=1\n[S]\nk=v\n");
    EXPECT_EQ(profile_value(profile, "S", "orphan"), "<default>");
    EXPECT_EQ(profile_value(profile, "S", "k"), "v");
}

TEST_F(ProfileRead, LineEndsAreCutAtTheFirstCarriageReturnOrLineFeed) {
    ProfileHandle* profile = open("[S]\r\nk=v\r\ncut=before\rafter\nend=x  ");
    EXPECT_EQ(profile_value(profile, "S", "k"), "v");
    EXPECT_EQ(profile_value(profile, "S", "cut"), "before");
    // No final line end and trailing blanks: the value keeps them.
    EXPECT_EQ(profile_value(profile, "S", "end"), "x  ");
}

TEST_F(ProfileRead, EmptyValueIsAValue) {
    ProfileHandle* profile = open("[S]\nk=\n");
    EXPECT_EQ(profile_value(profile, "S", "k"), "");
}

TEST_F(ProfileRead, MissingFileIsAnEmptyProfile) {
    ProfileHandle* profile = Com_OpenPrivateProfile(dir_.file("absent.ini").c_str(), 0);
    ASSERT_NE(profile, nullptr);
    EXPECT_EQ(profile->sections, nullptr);
    EXPECT_EQ(profile->state, 0u);
    EXPECT_EQ(profile_value(profile, "S", "k", "fallback"), "fallback");
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "k", 42, nullptr), 42);
    EXPECT_EQ(Com_ClosePrivateProfile(profile, nullptr), 0);
}

TEST_F(ProfileRead, NullPathIsAnEmptyProfileAndTheErrorSlotIsLeftAlone) {
    int error = 1234;
    ProfileHandle* profile = Com_OpenPrivateProfile2(nullptr, 0, &error);
    ASSERT_NE(profile, nullptr);
    EXPECT_EQ(profile->sections, nullptr);
    EXPECT_EQ(error, 1234);
    EXPECT_EQ(Com_ClosePrivateProfile2(profile, nullptr, &error), 0);
}

TEST_F(ProfileRead, UnreadableFileIsAnEmptyProfile) {
    // A directory can be opened but not read as a file.
    ProfileHandle* profile = Com_OpenPrivateProfile(dir_.path().c_str(), 0);
    ASSERT_NE(profile, nullptr);
    EXPECT_EQ(profile->sections, nullptr);
    EXPECT_EQ(Com_ClosePrivateProfile(profile, nullptr), 0);
}

TEST_F(ProfileRead, OpenKeepsTheFlagsAndStartsUnchanged) {
    const std::string path = dir_.file("flags.ini");
    kemail_test::write_file(path, "[S]\nk=v\n");
    ProfileHandle* profile = Com_OpenPrivateProfile2(path.c_str(), 0x21, nullptr);
    ASSERT_NE(profile, nullptr);
    EXPECT_EQ(profile->flags, 0x21u);
    EXPECT_EQ(profile->state, 0u);
    ASSERT_NE(profile->sections, nullptr);
    EXPECT_STREQ(profile->sections->name, "S");
    ASSERT_NE(profile->sections->entries, nullptr);
    EXPECT_STREQ(profile->sections->entries->key, "k");
    EXPECT_STREQ(profile->sections->entries->value, "v");
    EXPECT_EQ(Com_ClosePrivateProfile(profile, path.c_str()), 0);
}

// ---- String look-up and the caller's buffer --------------------------------

TEST_F(ProfileRead, StringIsCutToTheBuffer) {
    ProfileHandle* profile = open("[S]\nk=abcdef\n");
    char out[8];
    std::memset(out, 'z', sizeof out);
    EXPECT_EQ(Com_GetPrivateProfileString(profile, "S", "k", "", out, 4), 3);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(out[4], 'z');

    EXPECT_EQ(Com_GetPrivateProfileString(profile, "S", "k", "", out, 7), 6);
    EXPECT_STREQ(out, "abcdef");

    EXPECT_EQ(Com_GetPrivateProfileString(profile, "S", "k", "", out, 1), 0);
    EXPECT_STREQ(out, "");
}

TEST_F(ProfileRead, BufferOfSizeZeroIsNotTouched) {
    ProfileHandle* profile = open("[S]\nk=abcdef\n");
    char out[4] = {'q', 'q', 'q', '\0'};
    EXPECT_EQ(Com_GetPrivateProfileString(profile, "S", "k", "", out, 0), 0);
    EXPECT_STREQ(out, "qqq");
    EXPECT_EQ(Com_GetPrivateProfileString(profile, "S", "k", "", nullptr, 0), 0);
}

TEST_F(ProfileRead, DefaultIsCopiedAndCutLikeAValue) {
    ProfileHandle* profile = open("[S]\nk=v\n");
    char out[4];
    EXPECT_EQ(Com_GetPrivateProfileString(profile, "S", "missing", "defaulted", out, sizeof out),
              3);
    EXPECT_STREQ(out, "def");
    EXPECT_EQ(Com_GetPrivateProfileString(profile, "Missing", "k", "dd", out, sizeof out), 2);
    EXPECT_STREQ(out, "dd");
    // A null default reads as an empty one.
    EXPECT_EQ(Com_GetPrivateProfileString(profile, "S", "missing", nullptr, out, sizeof out), 0);
    EXPECT_STREQ(out, "");
}

TEST_F(ProfileRead, NullSectionOrKeyGivesTheDefault) {
    ProfileHandle* profile = open("[S]\nk=v\n");
    EXPECT_EQ(profile_value(profile, nullptr, "k"), "<default>");
    EXPECT_EQ(profile_value(profile, "S", nullptr), "<default>");
}

TEST(ProfileNullHandle, EveryFunctionGivesItsNullResult) {
    char out[8] = "keep";
    EXPECT_EQ(Com_GetPrivateProfileString(nullptr, "S", "k", "d", out, sizeof out), -1);
    EXPECT_STREQ(out, "keep");
    EXPECT_EQ(Com_GetPrivateProfileInt(nullptr, "S", "k", 5, nullptr), 0);
    EXPECT_EQ(Com_GetPrivateProfileInt(nullptr, "S", "k", -5, nullptr), 0);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(nullptr, "S", "k", 0xABCu, nullptr), 0xABCu);
    EXPECT_EQ(Com_WritePrivateProfileString(nullptr, "S", "k", "v"), 0);
    EXPECT_EQ(Com_ClosePrivateProfile(nullptr, "/nonexistent/x.ini"), -1);
    int error = 77;
    EXPECT_EQ(Com_ClosePrivateProfile2(nullptr, "/nonexistent/x.ini", &error), -1);
    EXPECT_EQ(error, 77);
}

// ---- Integer look-ups -------------------------------------------------------

TEST_F(ProfileRead, IntMissingKeyEmptyValueAndTrailingText) {
    ProfileHandle* profile = open("[S]\nempty=\nmixed=12abc\nword=abc\nneg=-34\nspaced= 7\n");
    // Kept: a missing key with a negative default reads the text "0".
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "missing", -1, nullptr), 0);
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "missing", 9, nullptr), 9);
    // Kept: an empty value gives the default as given, negative or not.
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "empty", -1, nullptr), -1);
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "mixed", -1, nullptr), 12);
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "word", 5, nullptr), 0);
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "neg", 5, nullptr), -34);
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "spaced", 5, nullptr), 7);
}

TEST_F(ProfileRead, IntLooksAtElevenCharactersAtMost) {
    ProfileHandle* profile = open("[S]\nlong=000000000012345\nbig=99999999999\n");
    // "00000000001" are the first eleven characters.
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "long", 0, nullptr), 1);
    // Too big for an int: some value, but no crash and no sanitizer report.
    (void)Com_GetPrivateProfileInt(profile, "S", "big", 0, nullptr);
}

TEST_F(ProfileRead, IntDefaultsAtTheLimits) {
    ProfileHandle* profile = open("[S]\n");
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "k", INT32_MAX, nullptr), INT32_MAX);
    EXPECT_EQ(Com_GetPrivateProfileInt(profile, "S", "k", INT32_MIN, nullptr), 0);
}

TEST_F(ProfileRead, HexAcceptsLowerCasePrefixOnly) {
    ProfileHandle* profile = open(
        "[S]\nprefixed=0x1F\nbare=1f\ncapital=0X1F\nempty=\nprefix=0x\nbad=1g\n"
        "negative=-1\nspace= 1f\nzero=0\nfull=FFFFFFFF\n");
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "prefixed", 7, nullptr), 31u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "bare", 7, nullptr), 31u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "capital", 7, nullptr), 7u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "empty", 7, nullptr), 7u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "missing", 7, nullptr), 7u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "prefix", 7, nullptr), 0u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "bad", 7, nullptr), 7u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "negative", 7, nullptr), 7u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "space", 7, nullptr), 7u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "zero", 7, nullptr), 0u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "full", 7, nullptr), 0xFFFFFFFFu);
}

TEST_F(ProfileRead, HexWithTooManyDigitsIsReadAsScanfReadsIt) {
    ProfileHandle* profile = open("[S]\nnine=123456789\nhuge=" + std::string(40, 'f') + "\n");
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "nine", 7, nullptr), 0x23456789u);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(profile, "S", "huge", 7, nullptr), 0xFFFFFFFFu);
}

// ---- Bounds: long lines and long names ---------------------------------------

TEST_F(ProfileRead, LineOver1024BytesIsSplitAndItsRestParsedAsALine) {
    const std::string long_value(1022, 'x');  // "a=" + 1022 bytes fill one read
    ProfileHandle* profile = open("[S]\na=" + long_value + "b=c\nafter=1\n");
    EXPECT_EQ(profile_value(profile, "S", "a"), long_value);
    EXPECT_EQ(profile_value(profile, "S", "b"), "c");
    EXPECT_EQ(profile_value(profile, "S", "after"), "1");
}

TEST_F(ProfileRead, RestOfASplitLineWithoutEqualsSignIsIgnored) {
    ProfileHandle* profile = open("[S]\nk=" + std::string(1100, 'y') + "\nnext=2\n");
    EXPECT_EQ(profile_value(profile, "S", "k"), std::string(1022, 'y'));
    EXPECT_EQ(profile_value(profile, "S", "next"), "2");
}

TEST_F(ProfileRead, LineOfExactly1024BytesLeavesItsLineFeedForTheNextRead) {
    ProfileHandle* profile = open("[S]\nk=" + std::string(1022, 'z') + "\nm=1\n");
    EXPECT_EQ(profile_value(profile, "S", "k"), std::string(1022, 'z'));
    EXPECT_EQ(profile_value(profile, "S", "m"), "1");
    // One byte shorter fits in one read with its line feed.
    open("[S]\nk=" + std::string(1021, 'z') + "\nm=2\n");
    EXPECT_EQ(profile_value(handle_, "S", "k"), std::string(1021, 'z'));
    EXPECT_EQ(profile_value(handle_, "S", "m"), "2");
}

TEST_F(ProfileRead, SectionNameOf67BytesIsKept) {
    const std::string name(67, 'n');
    ProfileHandle* profile = open("[" + name + "]\nk=v\n");
    EXPECT_EQ(profile_value(profile, name.c_str(), "k"), "v");
}

TEST_F(ProfileRead, SectionNameOver67BytesIsRefusedWithItsEntries) {
    const std::string name(68, 'n');
    ProfileHandle* profile = open("[Before]\nb=1\n[" + name + "]\nk=v\n[After]\na=2\n");
    EXPECT_EQ(profile_value(profile, name.c_str(), "k"), "<default>");
    EXPECT_EQ(profile_value(profile, name.substr(0, 67).c_str(), "k"), "<default>");
    // Its entries are not filed under the section before it.
    EXPECT_EQ(profile_value(profile, "Before", "k"), "<default>");
    EXPECT_EQ(profile_value(profile, "Before", "b"), "1");
    EXPECT_EQ(profile_value(profile, "After", "a"), "2");
    int sections = 0;
    for (ProfileSection* s = profile->sections; s != nullptr; s = s->next) ++sections;
    EXPECT_EQ(sections, 2);
}

TEST_F(ProfileRead, KeyOver67BytesIsRefusedAndOf67BytesKept) {
    const std::string kept(67, 'k');
    const std::string refused(68, 'k');
    ProfileHandle* profile = open("[S]\n" + kept + "=short\n" + refused + "=long\nz=1\n");
    EXPECT_EQ(profile_value(profile, "S", kept.c_str()), "short");
    EXPECT_EQ(profile_value(profile, "S", refused.c_str()), "<default>");
    EXPECT_EQ(profile_value(profile, "S", "z"), "1");
    int entries = 0;
    for (ProfileEntry* e = profile->sections->entries; e != nullptr; e = e->next) ++entries;
    EXPECT_EQ(entries, 2);
}

TEST_F(ProfileRead, SectionLineSplitAcrossReadsOpensNoSection) {
    const std::string name(2000, 's');
    ProfileHandle* profile = open("[S]\nk=v\n[" + name + "]\nx=1\n");
    EXPECT_EQ(profile_value(profile, "S", "k"), "v");
    // The first read has no ']' and is ignored; the rest "sss...]" is no
    // section line either, so x lands in S.
    EXPECT_EQ(profile_value(profile, "S", "x"), "1");
}

}  // namespace
