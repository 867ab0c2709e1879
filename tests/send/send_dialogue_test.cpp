// The SMTP dialogue of a split send: the pieces put together, and a failed
// second piece. The whole-mail dialogues, and a split one with its mail log
// and trace, are tests/dialogues/send-*.dlg.
#include "send_fixture.h"

#include <cstdio>

namespace send_test {
namespace {

using kemail_test::TempDir;

std::string pattern_bytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7) % 256);
    return bytes;
}

std::string decode_base64(const std::string& text) {
    static const std::string kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned value = 0;
    int bits = 0;
    for (char c : text) {
        const size_t index = kAlphabet.find(c);
        if (index == std::string::npos) continue;  // line breaks and padding
        value = (value << 6) | static_cast<unsigned>(index);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((value >> bits) & 0xFF));
        }
    }
    return out;
}

class SendDialogue : public SendTest {
protected:
    void TearDown() override {
        std::remove((kemail_test::etc_dir() + "/kemail.ini").c_str());
        SendTest::TearDown();
    }
};

TEST_F(SendDialogue, SplitMailIsThreeTransactionsInOneSession) {
    TempDir dir;
    const std::string attachment = dir.file("big.bin");
    const std::string content = pattern_bytes(16000);
    kemail_test::write_file(attachment, content);

    Script s;
    greet(s);
    for (int piece = 0; piece < 3; ++piece) {
        transaction(s);
        s.read_line().send("250 2.0.0 Ok\r\n");  // RSET
    }
    quit(s);
    ScriptServer server(std::move(s));

    Mail mail(server.port());
    mail.split = 1;
    mail.option = SendOptionInfo{10, server.port()};
    mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, attachment});
    ASSERT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    ASSERT_TRUE(server.wait_done());
    ASSERT_FALSE(server.failed()) << server.error();

    const auto records = server.records();
    ASSERT_EQ(records.size(), 1u + 3 * 5 + 1);
    EXPECT_EQ(records[0], "EHLO " + host_name() + "\r\n");
    std::string inner;
    std::string first_id;
    for (int piece = 1; piece <= 3; ++piece) {
        const size_t at = 1 + static_cast<size_t>(piece - 1) * 5;
        EXPECT_EQ(records[at], "MAIL FROM:<sender@example.test>\r\n");
        EXPECT_EQ(records[at + 1], "RCPT TO:<rcpt@example.test>\r\n");
        EXPECT_EQ(records[at + 2], "DATA\r\n");
        EXPECT_EQ(records[at + 4], "RSET\r\n");

        const std::string& data = records[at + 3];
        const size_t header_end = data.find("\r\n\r\n");
        ASSERT_NE(header_end, std::string::npos);
        const std::string header = data.substr(0, header_end + 4);
        const std::string n = std::to_string(piece);
        EXPECT_EQ(mask_variable(header),
                  "Date: <date>\r\n"
                  "From: sender@example.test\r\n"
                  "To: rcpt@example.test\r\n"
                  "Subject: Test [" +
                      n +
                      "/3]\r\n"
                      "Message-Id: <id>\r\n"
                      "MIME-Version: 1.0\r\n"
                      "Content-Type: message/partial; number=" +
                      n +
                      "; total=3;\r\n"
                      "\tid=\"<partial-id>\"\r\n"
                      "\r\n");
        const size_t id_at = header.find("id=\"");
        const std::string id = header.substr(id_at, header.find('"', id_at + 4) - id_at);
        if (piece == 1) first_id = id;
        EXPECT_EQ(id, first_id) << "every piece carries the same id";
        ASSERT_GE(data.size(), header.size() + 5);
        EXPECT_EQ(data.substr(data.size() - 5), "\r\n.\r\n");
        const std::string body = data.substr(header.size(), data.size() - header.size() - 5);
        EXPECT_LE(body.size(), 10u * 1024) << "piece " << piece;
        inner += body;
    }
    EXPECT_EQ(records.back(), "QUIT\r\n");

    // The pieces put together are the message, which starts at its Subject.
    const std::string masked = mask_variable(inner);
    EXPECT_EQ(
        masked.rfind("Subject: Test\r\nMessage-Id: <id>\r\nMIME-Version: 1.0\r\n"
                     "Content-Type: multipart/mixed; boundary=\"---------------ZvLunt<time>\"\r\n",
                     0),
        0u)
        << masked.substr(0, 300);
    const std::string part_header =
        "Content-Disposition: attachment;\r\n\tfilename=\"big.bin\"\r\n\r\n";
    const size_t start = inner.find(part_header);
    ASSERT_NE(start, std::string::npos);
    const size_t end = inner.find("\r\n--", start + part_header.size());
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(
        decode_base64(inner.substr(start + part_header.size(), end - start - part_header.size())),
        content);
}

TEST_F(SendDialogue, SplitFlagWithASmallMailSendsItWhole) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.split = 1;
    mail.option = SendOptionInfo{10, server.port()};
    mail.text = std::string(9 * 1024, 'a');  // an estimate of exactly 10 KB
    ASSERT_EQ(mail.send(), KEMAIL_OK);
    ASSERT_TRUE(server.wait_done());
    ASSERT_EQ(server.records().size(), 6u);
    EXPECT_EQ(server.records()[4].find("message/partial"), std::string::npos);
}

TEST_F(SendDialogue, FailedSecondPieceLeavesTheFirstDeliveredAndReportsTheRefusal) {
    TempDir dir;
    const std::string attachment = dir.file("big.bin");
    kemail_test::write_file(attachment, pattern_bytes(16000));
    Script s;
    greet(s);
    transaction(s);
    s.read_line().send("250 2.0.0 Ok\r\n");  // RSET
    s.read_line().send("452 4.3.1 Insufficient system storage\r\n").drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    mail.split = 1;
    mail.option = SendOptionInfo{10, server.port()};
    mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT_DELETE, attachment});
    EXPECT_EQ(mail.send(), KEMAIL_E_REFUSED);
    EXPECT_STREQ(mail.message, "452 4.3.1 Insufficient system storage\r\n");
    EXPECT_TRUE(file_exists(attachment)) << "kind 4 is kept when the send fails";
}

}  // namespace
}  // namespace send_test
