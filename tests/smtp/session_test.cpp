// A whole session through the SMTP functions alone: connect, greeting, EHLO,
// authentication, one message from a staged file, QUIT.
#include "dialogue.h"

#include "support/temp_dir.h"

#include <unistd.h>

#include <string>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

std::string staged_message() {
    std::string message =
        "From: agent@example.com\r\nTo: ops@example.com,audit@example.org\r\n"
        "Subject: nightly report\r\nMIME-Version: 1.0\r\n"
        "Content-Type: text/plain; charset=ISO-2022-JP\r\n\r\n";
    for (int i = 0; i < 200; ++i) message += "report line " + std::to_string(i) + "\r\n";
    message += "..a line that began with a dot\r\n";
    return message;
}

TEST(Session, ConnectGreetAuthenticateDeliverQuit) {
    set_phase_timeouts(5);
    trace_clear();
    const std::string message = staged_message();
    StagedFile file(message);
    AuthCertInfo cert = credentials(KEMAIL_MECH_PLAIN | KEMAIL_MECH_LOGIN, "agent", "s3cret");
    MailAuthInfo auth = smtp_auth(&cert);

    ASSERT_EQ(g_pLogHandle, nullptr);
    g_pLogHandle = MailLogOpen(0);
    const std::string log_path = g_pLogHandle ? g_pLogHandle->path : "";

    Script script;
    greet(script, "250-AUTH PLAIN LOGIN\r\n")
        .read_line()  // AUTH PLAIN
        .send("235 2.7.0 accepted\r\n")
        .read_line()  // MAIL FROM
        .send("250 2.1.0 ok\r\n")
        .read_line()  // RCPT TO
        .send("250 2.1.5 ok\r\n")
        .read_line()  // RCPT TO
        .send("250 2.1.5 ok\r\n")
        .read_line()  // DATA
        .send("354 end with <CRLF>.<CRLF>\r\n")
        .read_until("\r\n.\r\n")
        .send("250 2.0.0 queued as 1234\r\n")
        .read_line()  // QUIT
        .send("221 2.0.0 bye\r\n");
    ScriptServer server(script);

    unsigned int err = 99;
    const int sock = SMTP_connect("127.0.0.1", server.port(), &err);
    ASSERT_GE(sock, 0);
    EXPECT_EQ(SMTP_initialize(sock, &auth, &err), 0);
    EXPECT_EQ(SMTP_MAIL(sock, "agent@example.com", "ops@example.com,audit@example.org", &err), 0);
    EXPECT_EQ(SMTP_startData(sock, &err), 0);
    EXPECT_EQ(SMTP_sendData(sock, file.fd, &err), 0);
    EXPECT_EQ(SMTP_endData(sock, &err), 0);
    EXPECT_EQ(last_reply(), "250 2.0.0 queued as 1234\r\n");
    EXPECT_EQ(SMTP_QUIT(sock, &err), 0);
    close(sock);
    ASSERT_TRUE(server.wait_done());
    EXPECT_FALSE(server.failed()) << server.error();

    EXPECT_EQ(server.received(), ehlo_line() +
                                     "AUTH PLAIN YWdlbnQAYWdlbnQAczNjcmV0\r\n"
                                     "MAIL FROM:<agent@example.com>\r\n"
                                     "RCPT TO:<ops@example.com>\r\n"
                                     "RCPT TO:<audit@example.org>\r\n"
                                     "DATA\r\n" +
                                     message + "\r\n.\r\nQUIT\r\n");
    EXPECT_TRUE(traced_in_order({"smtp0000", "smtp0050", "smtp0100", "smtp0121J", "INPLANFFFF",
                                 "smtp0121M", "SMTP0200-2", "SMTP02FF-2", "smtp02FF", "smtp05FF",
                                 "smtp04FF", "SMTP04FF-2"}));

    MailLogClose(g_pLogHandle);
    g_pLogHandle = nullptr;
    ASSERT_FALSE(log_path.empty()) << "the mail log could not be opened";
    const std::string log = kemail_test::read_file(log_path);
    unlink(log_path.c_str());
    for (const char* line :
         {"R: 220 test ESMTP\r\n", "S: AUTH PLAIN ******\r\n", "R: 235 2.7.0 accepted\r\n",
          "S: RCPT TO:<audit@example.org>\r\n", "S: DATA\r\n", "R: 221 2.0.0 bye\r\n"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line << " missing in\n" << log;
    }
    EXPECT_EQ(log.find("s3cret"), std::string::npos);
    EXPECT_EQ(log.find("report line"), std::string::npos) << "message data is not logged";
}

}  // namespace
