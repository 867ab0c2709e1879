// Internal helpers of the composition: bounds that the exported functions
// rely on, and the host-name cache with a test resolver file.
#include "compose/compose.h"
#include "posix_match.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sched.h>
#include <string>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(RecipientCursor, KeepsEachCommaAndMarksTheLast) {
    kemail::RecipientCursor cursor("a@x, b@y,c@z");
    char element[16];
    ASSERT_TRUE(cursor.next(element, sizeof element));
    EXPECT_STREQ(element, "a@x,");
    EXPECT_FALSE(cursor.last());
    ASSERT_TRUE(cursor.next(element, sizeof element));
    EXPECT_STREQ(element, " b@y,");
    ASSERT_TRUE(cursor.next(element, sizeof element));
    EXPECT_STREQ(element, "c@z");
    EXPECT_TRUE(cursor.last());
    EXPECT_FALSE(cursor.next(element, sizeof element));
}

TEST(RecipientCursor, LongElementIsCutAndTheNextOneIsWhole) {
    const std::string list = std::string(50, 'l') + ",short";
    kemail::RecipientCursor cursor(list.c_str());
    char element[11];
    std::memset(element, 'Z', sizeof element);
    ASSERT_TRUE(cursor.next(element, sizeof element));
    EXPECT_STREQ(element, "llllllllll");
    ASSERT_TRUE(cursor.next(element, sizeof element));
    EXPECT_STREQ(element, "short");
}

TEST(RecipientCursor, EmptyAndNullListsGiveOneEmptyElement) {
    char element[4];
    kemail::RecipientCursor empty("");
    ASSERT_TRUE(empty.next(element, sizeof element));
    EXPECT_STREQ(element, "");
    EXPECT_FALSE(empty.next(element, sizeof element));
    kemail::RecipientCursor null(nullptr);
    ASSERT_TRUE(null.next(element, sizeof element));
    EXPECT_STREQ(element, "");
}

TEST(ToIso2022, SmallBufferKeepsWholeCharactersAndCloses) {
    const char src[] =
        "a\x82\xA0\x82\xA2"
        "b";
    // a ESC$B 2 2 ESC(J b NUL needs 13 bytes.
    for (size_t size = 1; size <= 14; ++size) {
        std::vector<char> out(size + 4, '\x7F');
        const size_t n = kemail::to_iso2022(src, out.data(), size);
        ASSERT_LT(n, size);
        EXPECT_EQ(out[n], '\0');
        for (size_t k = size; k < out.size(); ++k) ASSERT_EQ(out[k], '\x7F') << size;
        const std::string text(out.data(), n);
        const bool opened = text.find("\x1b$B") != std::string::npos;
        const bool closed = text.find("\x1b(J") != std::string::npos;
        EXPECT_EQ(opened, closed) << "every opened run is closed, size " << size;
    }
    char out[16];
    EXPECT_EQ(kemail::to_iso2022(src, out, 13), 12u);
    EXPECT_STREQ(out, "a\x1b$B\x24\x22\x24\x24\x1b(Jb");
    EXPECT_EQ(kemail::to_iso2022(src, out, 12), 11u);
    EXPECT_STREQ(out, "a\x1b$B\x24\x22\x24\x24\x1b(J");
    EXPECT_EQ(kemail::to_iso2022(src, out, 10), 9u);
    EXPECT_STREQ(out, "a\x1b$B\x24\x22\x1b(J");
}

TEST(MakeSubject, SmallBufferKeepsOnlyWholeEncodedWords) {
    const char subject[] = "x\x8a\xbf\x8e\x9a";  // x and two kanji
    char big[256];
    kemail::make_subject(subject, big, sizeof big);
    const std::string full = big;
    ASSERT_EQ(full.substr(0, 17), "x=?ISO-2022-JP?B?");
    for (size_t size = 1; size < full.size() + 2; ++size) {
        std::vector<char> out(size + 4, '\x7F');
        kemail::make_subject(subject, out.data(), size);
        const std::string got = out.data();
        ASSERT_LT(got.size(), size);
        for (size_t k = size; k < out.size(); ++k) ASSERT_EQ(out[k], '\x7F');
        EXPECT_TRUE(got == full || got == "x" || got.empty()) << size << ": " << got;
    }
    std::vector<char> tiny(3);
    kemail::make_subject("plain ascii", tiny.data(), tiny.size());
    EXPECT_STREQ(tiny.data(), "pl");
}

TEST(ToHex, LowercaseHighNibbleFirst) {
    const unsigned char bytes[] = {0x00, 0x9f, 0xA0, 0xff};
    char out[9];
    kemail::to_hex(bytes, sizeof bytes, out);
    EXPECT_STREQ(out, "009fa0ff");
}

// The host part of a Message-Id, looked up in a child with its own node name.
std::string host_part_for(const std::string& node, const std::string& resolver_text,
                          bool with_file = true) {
    kemail_test::TempDir dir;
    const std::string conf = dir.file("resolv.conf");
    if (with_file) kemail_test::write_file(conf, resolver_text);
    int fds[2];
    if (pipe(fds) != 0) return "pipe";
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        if (unshare(CLONE_NEWUTS) != 0 || sethostname(node.data(), node.size()) != 0) _exit(3);
        kemail::clear_host_name_cache();
        kemail::set_resolver_conf_path(conf.c_str());
        char line[KEMAIL_MSGID_SIZE];
        SMTP_MakeMsgId(line);
        // The cache is kept: a changed resolver file is not read again.
        kemail_test::write_file(conf, "domain changed.example\n");
        char again[KEMAIL_MSGID_SIZE];
        SMTP_MakeMsgId(again);
        std::vector<std::string> a;
        std::vector<std::string> b;
        const char* host = ".*@(.*)>\r\n";
        if (!compose_test::matches(line, host, &a) || !compose_test::matches(again, host, &b))
            _exit(4);
        if (a[1] != b[1]) _exit(5);
        const std::string part = a[1];
        if (write(fds[1], part.data(), part.size()) != static_cast<ssize_t>(part.size())) _exit(6);
        _exit(0);
    }
    close(fds[1]);
    std::string part;
    char buf[512];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
        part.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    return part;
}

TEST(HostNameCache, NodeWithoutDotGetsTheDomainOfTheResolverFile) {
    EXPECT_EQ(host_part_for("nodot", "domain\texample.test\n"), "nodot.example.test");
    EXPECT_EQ(host_part_for("nodot", "# domain x\ndomainname y\ndomain  z.example  extra\n"),
              "nodot.z.example");
}

TEST(HostNameCache, MissingFileOrNoDomainKeepsTheNodeName) {
    EXPECT_EQ(host_part_for("lonely", "", false), "lonely");
    EXPECT_EQ(host_part_for("lonely", "search example.test\n"), "lonely");
    // A "domain" line without a second word appends only the dot.
    EXPECT_EQ(host_part_for("lonely", "domain\n"), "lonely.");
}

TEST(HostNameCache, NodeWithDotDoesNotReadTheFile) {
    EXPECT_EQ(host_part_for("a.b", "domain example.test\n"), "a.b");
}

// 131 bytes of cache: a 64-byte node name, the dot and a 66-byte domain fit;
// a longer domain is left off instead of being cut.
TEST(HostNameCache, LongDomainFitsOrIsLeftOff) {
    const std::string node(64, 'n');
    const std::string fits(66, 'd');
    EXPECT_EQ(host_part_for(node, "domain " + fits + "\n"), node + "." + fits);
    EXPECT_EQ(host_part_for(node, "domain " + fits + "e\n"), node);
    EXPECT_EQ(host_part_for("n", "domain " + std::string(900, 'x') + "\n"), "n");
}

// The EUC-JP to Shift_JIS line converter.
class LineConverter : public ::testing::Test {
protected:
    void SetUp() override {
        converter_ = Cnv_open("eucJP", "SJIS");
        ASSERT_NE(converter_, reinterpret_cast<iconv_t>(-1));
    }
    void TearDown() override { Cnv_close(converter_); }
    iconv_t converter_{};
};

TEST_F(LineConverter, NoConverterLeavesDestinationEmpty) {
    char dest[16] = {};
    EXPECT_EQ(kemail::convert_lines(reinterpret_cast<iconv_t>(-1), "abc", dest, sizeof dest), -1);
    EXPECT_STREQ(dest, "");
}

TEST_F(LineConverter, ConvertsEachLineAndKeepsLineEnds) {
    // EUC-JP A4A2 (hiragana a) is Shift_JIS 82A0.
    char dest[64] = {};
    EXPECT_EQ(kemail::convert_lines(converter_, "x\xA4\xA2\r\ny\r\n\xA4\xA2", dest, sizeof dest),
              10);
    EXPECT_STREQ(dest, "x\x82\xA0\r\ny\r\n\x82\xA0");
}

TEST_F(LineConverter, OnePieceLongerThanTheUsualScratchConvertsWhole) {
    std::string source;
    std::string expected;
    for (int i = 0; i < 5000; ++i) {  // 10,000 bytes without a line end
        source += "\xA4\xA2";
        expected += "\x82\xA0";
    }
    std::string dest(source.size() + 1, '\0');
    EXPECT_EQ(kemail::convert_lines(converter_, source.c_str(), dest.data(), dest.size()),
              static_cast<int>(expected.size()));
    EXPECT_EQ(std::string(dest.c_str()), expected);
}

TEST_F(LineConverter, WholeTextEqualsPieceByPiece) {
    std::string source;
    for (int line = 0; line < 40; ++line) {
        source += "line " + std::to_string(line) + " \xC6\xFC\xCB\xDC";
        source += std::string(static_cast<size_t>(line) * 37 % 1500, 'a') + "\r\n";
    }
    source += "\xB8\xEC";  // a last piece without a line end
    std::string whole(source.size() + 1, '\0');
    const int whole_length =
        kemail::convert_lines(converter_, source.c_str(), whole.data(), whole.size());
    ASSERT_GT(whole_length, 0);
    std::string pieces;
    size_t at = 0;
    while (at < source.size()) {
        size_t end = source.find("\r\n", at);
        end = end == std::string::npos ? source.size() : end + 2;
        const std::string piece = source.substr(at, end - at);
        std::string out(piece.size() + 1, '\0');
        ASSERT_GE(kemail::convert_lines(converter_, piece.c_str(), out.data(), out.size()), 0);
        pieces += out.c_str();
        at = end;
    }
    EXPECT_EQ(std::string(whole.c_str(), static_cast<size_t>(whole_length)), pieces);
}

TEST_F(LineConverter, FailedPieceLeavesTheSourceUnconvertedAndCut) {
    char dest[8] = {};
    EXPECT_EQ(kemail::convert_lines(converter_,
                                    "ok\r\n\xA4"
                                    "A tail",
                                    dest, sizeof dest),
              -1);
    EXPECT_STREQ(dest,
                 "ok\r\n\xA4"
                 "A ");  // the source, cut to size - 1
}

}  // namespace
