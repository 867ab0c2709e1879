// kemail-send's subject and text in the operator's character set (the
// locale's codeset, or --charset), and --ipv6, against a scripted server.
#include "support/script_server.h"
#include "support/temp_dir.h"
#include "tool_run.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using kemail_test::TempDir;
using tools_test::quote;
using tools_test::ToolResult;

// "Nihon" (day, book) in each charset, and its ISO-2022-JP subject.
const std::string kUtf8Nihon = "\xE6\x97\xA5\xE6\x9C\xAC";
const std::string kEucNihon = "\xC6\xFC\xCB\xDC";
const std::string kSjisNihon = "\x93\xFA\x96\x7B";
const std::string kEncodedNihon = "Subject: =?ISO-2022-JP?B?GyRCRnxLXBsoSg==?=\r\n";
// The same two characters in the text part: ESC $ B, JIS codes, ESC ( J.
const std::string kJisNihon = "\x1b$BF|K\\\x1b(J";

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

Script whole_mail() {
    return Script()
        .send("220 test ESMTP\r\n")
        .read_line()
        .send("250 test\r\n")
        .read_line()
        .send("250 ok\r\n")
        .read_line()
        .send("250 ok\r\n")
        .read_line()
        .send("354 go\r\n")
        .read_until("\r\n.\r\n")
        .send("250 queued\r\n")
        .read_line()
        .send("221 bye\r\n");
}

// Runs kemail-send in the given locale with the subject and a text file.
class SendToolCharset : public ::testing::Test {
protected:
    void TearDown() override { unsetenv("LC_ALL"); }

    ToolResult send(const char* locale, const ScriptServer& server, const std::string& subject,
                    const std::string& text, const std::string& extra = "") {
        setenv("LC_ALL", locale, 1);
        const std::string body = dir_.file("body.txt");
        kemail_test::write_file(body, text);
        return tools_test::run(
            "kemail-send", "--from a@example.com --to b@example.com --server 127.0.0.1 --port " +
                               std::to_string(server.port()) + " --subject " + quote(subject) +
                               " --body " + quote(body) + " " + extra);
    }

    TempDir dir_;
};

TEST_F(SendToolCharset, AUtf8TerminalsJapaneseArrivesAsIso2022Jp) {
    ScriptServer server(whole_mail());
    const ToolResult run = send("C.UTF-8", server, kUtf8Nihon, kUtf8Nihon + "\n");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(has(server.received(), kEncodedNihon)) << server.received();
    EXPECT_TRUE(has(server.received(), "\r\n\r\n" + kJisNihon + "\r\n")) << server.received();
}

TEST_F(SendToolCharset, ACharacterWithoutAShiftJisFormWarnsAndExitsZero) {
    ScriptServer server(whole_mail());
    const ToolResult run = send("C.UTF-8", server, kUtf8Nihon + "\xF0\x9F\x98\x80", "x\n");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(has(run.err, "KEMAIL_W_CONVERSION")) << run.err;
    // ESC $ B, the two characters and GETA MARK (0x222E), ESC ( J.
    EXPECT_TRUE(has(server.received(), "Subject: =?ISO-2022-JP?B?GyRCRnxLXCIuGyhK?=\r\n"))
        << server.received();
}

TEST_F(SendToolCharset, TheSubjectLimitCountsShiftJisBytes) {
    std::string subject;
    for (int i = 0; i < 33; ++i) subject += kUtf8Nihon.substr(0, 3);  // 66 Shift_JIS bytes
    setenv("LC_ALL", "C.UTF-8", 1);
    const ToolResult run = tools_test::run(
        "kemail-send",
        "--from a@example.com --to b@example.com --server 127.0.0.1 --subject " + quote(subject));
    EXPECT_EQ(run.status, 64) << run.err;
    EXPECT_TRUE(has(run.err, "--subject is 66 bytes; at most 64 (Shift_JIS bytes once converted)"))
        << run.err;
}

TEST_F(SendToolCharset, CharsetNamesAnotherInputCharset) {
    ScriptServer server(whole_mail());
    const ToolResult run = send("C.UTF-8", server, kEucNihon, kEucNihon + "\n", "--charset EUC-JP");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(has(server.received(), kEncodedNihon)) << server.received();
    EXPECT_TRUE(has(server.received(), "\r\n\r\n" + kJisNihon + "\r\n")) << server.received();
}

TEST_F(SendToolCharset, AnUnknownCharsetIsAUsageError) {
    setenv("LC_ALL", "C.UTF-8", 1);
    const ToolResult run = tools_test::run(
        "kemail-send",
        "--from a@example.com --to b@example.com --server 127.0.0.1 --subject x --charset "
        "NO-SUCH-CHARSET");
    EXPECT_EQ(run.status, 64);
    EXPECT_TRUE(has(run.err, "no conversion from NO-SUCH-CHARSET")) << run.err;
}

// The C locale passes the bytes as given, as kemail-send always did.
TEST_F(SendToolCharset, TheCLocalePassesShiftJisAsGiven) {
    ScriptServer server(whole_mail());
    const ToolResult run = send("C", server, kSjisNihon, kSjisNihon + "\n");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(has(server.received(), kEncodedNihon)) << server.received();
}

// Bytes that are no UTF-8 (Shift_JIS from a file) in a UTF-8 locale pass as
// given, as they always did.
TEST_F(SendToolCharset, ShiftJisInAUtf8LocalePassesAsGiven) {
    ScriptServer server(whole_mail());
    const ToolResult run = send("C.UTF-8", server, kSjisNihon, kSjisNihon + "\n");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(has(server.received(), kEncodedNihon)) << server.received();
    EXPECT_TRUE(has(server.received(), "\r\n\r\n" + kJisNihon + "\r\n")) << server.received();
}

TEST_F(SendToolCharset, Ipv6SendsToAnIpv6Server) {
    if (!kemail_test::has_ipv6_loopback()) GTEST_SKIP() << "lo has no ::1 on this host";
    ScriptServer server(whole_mail(), kemail_test::Loopback::Ipv6);
    setenv("LC_ALL", "C", 1);
    const ToolResult run = tools_test::run(
        "kemail-send", "--from a@example.com --to b@example.com --server ::1 --ipv6 --port " +
                           std::to_string(server.port()));
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(has(server.received(), "MAIL FROM:<a@example.com>\r\n"));
}

TEST_F(SendToolCharset, WithoutIpv6AnIpv6AddressDoesNotResolve) {
    setenv("LC_ALL", "C", 1);
    const ToolResult run = tools_test::run(
        "kemail-send", "--from a@example.com --to b@example.com --server ::1 --port 25");
    EXPECT_EQ(run.status, 68) << run.err;
}

}  // namespace
