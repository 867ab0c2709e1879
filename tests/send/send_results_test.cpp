// Every public result of a send that a scripted SMTP server can provoke, with
// what the message buffer holds afterwards.
#include "send_fixture.h"
#include "support/fake_clock.h"

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

namespace send_test {
namespace {

using kemail_test::RefusedPort;
using kemail_test::TempDir;

class SendResults : public SendTest {};

TEST_F(SendResults, AcceptedMailReturnsZeroAndAnEmptyMessage) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_OK);
    EXPECT_STREQ(mail.message, "");
    ASSERT_TRUE(server.wait_done());
    EXPECT_FALSE(server.failed()) << server.error();
}

TEST_F(SendResults, RefusedSecondRecipientGivesMinus6WithTheReplyAndNoData) {
    Script s;
    greet(s)
        .read_line()
        .send("250 2.1.0 Ok\r\n")
        .read_line()
        .send("250 2.1.5 Ok\r\n")
        .read_line()
        .send("550 5.1.1 <b@example.test>: Recipient address rejected\r\n")
        .drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    mail.to = "a@example.test,b@example.test";
    EXPECT_EQ(mail.send(), KEMAIL_E_REFUSED);
    EXPECT_STREQ(mail.message, "550 5.1.1 <b@example.test>: Recipient address rejected\r\n");
    ASSERT_TRUE(server.wait_done());
    const auto records = server.records();
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[1], "MAIL FROM:<sender@example.test>\r\n");
    EXPECT_EQ(records[2], "RCPT TO:<a@example.test>\r\n");
    EXPECT_EQ(records[3], "RCPT TO:<b@example.test>\r\n");
    EXPECT_EQ(records[4], "") << "nothing may follow the refusal: no DATA, no QUIT";
}

TEST_F(SendResults, RefusedGreetingGivesMinus6) {
    Script s;
    s.send("554 5.3.2 not now\r\n").drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_REFUSED);
    EXPECT_STREQ(mail.message, "554 5.3.2 not now\r\n");
}

TEST_F(SendResults, RefusedMessageGivesMinus6) {
    Script s;
    greet(s)
        .read_line()
        .send("250 Ok\r\n")
        .read_line()
        .send("250 Ok\r\n")
        .read_line()
        .send("354 go\r\n")
        .read_until("\r\n.\r\n")
        .send("552 5.3.4 Message too big\r\n")
        .drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_REFUSED);
    EXPECT_STREQ(mail.message, "552 5.3.4 Message too big\r\n");
}

TEST_F(SendResults, ConnectionResetGivesMinus7WithTheErrorNumber) {
    Script s;
    s.send("220 kemail-test ESMTP\r\n").read_line().reset();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_SOCKET);
    EXPECT_STREQ(mail.message, "104");  // ECONNRESET
}

TEST_F(SendResults, RefusedConnectionGivesMinus10WithTheErrorNumber) {
    RefusedPort refused;
    kemail_test::FakeClock clock;  // the one-second pauses between tries
    Mail mail(refused.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_UNREACHABLE);
    EXPECT_STREQ(mail.message, "111");  // ECONNREFUSED, after the retries
}

TEST_F(SendResults, MissingAttachmentGivesMinus8BeforeAnyConnection) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, "/nonexistent/report.csv"});
    EXPECT_EQ(mail.send(), KEMAIL_E_ATTACHMENT);
    EXPECT_STREQ(mail.message, "");
    EXPECT_EQ(server.connections(), 0);
}

TEST_F(SendResults, UnwritableWorkDirectoryGivesMinus3WithTheErrorNumber) {
    TempDir dir;
    const std::string not_a_dir = dir.file("plain-file");
    kemail_test::write_file(not_a_dir, "x");
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    EXPECT_EQ(mail.send_with_temp_dir(not_a_dir), KEMAIL_E_WORK_FILE);
    EXPECT_STREQ(mail.message, "20");  // ENOTDIR
    EXPECT_EQ(server.connections(), 0);
}

TEST_F(SendResults, WorkDirectoryReplacedByAFileGivesMinus3ThroughTheEntry) {
    const std::string dir = work_dir();
    const std::string aside = dir + ".aside";
    ASSERT_EQ(rename(dir.c_str(), aside.c_str()), 0);
    kemail_test::write_file(dir, "not a directory");
    Mail mail(25);
    const int result = mail.send();
    unlink(dir.c_str());
    ASSERT_EQ(rename(aside.c_str(), dir.c_str()), 0);
    EXPECT_EQ(result, KEMAIL_E_WORK_FILE);
    EXPECT_STREQ(mail.message, "20");
}

TEST_F(SendResults, UnwritableLogDirectoryLeavesTheSendWithoutALog) {
    const std::string dir = kemail_test::var_dir() + "/log";
    const std::string aside = dir + ".aside";
    ASSERT_EQ(rename(dir.c_str(), aside.c_str()), 0);
    kemail_test::write_file(dir, "not a directory");
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    const int result = mail.send();
    const bool server_done = server.wait_done();
    unlink(dir.c_str());
    ASSERT_EQ(rename(aside.c_str(), dir.c_str()), 0);
    EXPECT_EQ(result, KEMAIL_OK);
    EXPECT_STREQ(mail.message, "");
    EXPECT_TRUE(server_done);
    EXPECT_FALSE(server.failed()) << server.error();
}

TEST_F(SendResults, AuthWantedButNotOfferedGivesTwoWhenTheMailIsAccepted) {
    AuthCertInfo cert{};
    cert.ulMechanisms = KEMAIL_MECH_PLAIN;
    std::strcpy(cert.szUser, "user");
    std::strcpy(cert.szPassword, "secret");
    MailAuthInfo auth{KEMAIL_AUTH_SMTP, 0, &cert};
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.auth = &auth;
    EXPECT_EQ(mail.send(), KEMAIL_W_NO_AUTH);
    EXPECT_STREQ(mail.message, "");
}

TEST_F(SendResults, RefusedMailAfterNoCommonMechanismGivesMinus26) {
    AuthCertInfo cert{};
    cert.ulMechanisms = KEMAIL_MECH_CRAM_MD5;
    std::strcpy(cert.szUser, "user");
    MailAuthInfo auth{KEMAIL_AUTH_SMTP, 0, &cert};
    Script s;
    greet(s, "250-kemail-test\r\n250 AUTH PLAIN LOGIN\r\n")
        .read_line()
        .send("530 5.7.0 Authentication required\r\n")
        .drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    mail.auth = &auth;
    EXPECT_EQ(mail.send(), KEMAIL_E_NO_AUTH);
    EXPECT_STREQ(mail.message, "530 5.7.0 Authentication required\r\n");
}

TEST_F(SendResults, RefusedMailAfterHeloOnlyGivesMinus26) {
    AuthCertInfo cert{};
    cert.ulMechanisms = KEMAIL_MECH_PLAIN;
    std::strcpy(cert.szUser, "user");
    MailAuthInfo auth{KEMAIL_AUTH_SMTP, 0, &cert};
    Script s;
    s.send("220 old ESMTP\r\n")
        .read_line()
        .send("502 5.5.2 EHLO not implemented\r\n")
        .read_line()
        .send("250 old\r\n")
        .read_line()
        .send("530 5.7.0 Authentication required\r\n")
        .drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    mail.auth = &auth;
    EXPECT_EQ(mail.send(), KEMAIL_E_NO_AUTH);
    EXPECT_STREQ(mail.message, "530 5.7.0 Authentication required\r\n");
    const auto records = server.records();
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[1], "HELO " + host_name() + "\r\n");
}

TEST_F(SendResults, RefusedRecipientAfterEveryMechanismRefusedGivesMinus25) {
    AuthCertInfo cert{};
    cert.ulMechanisms = KEMAIL_MECH_PLAIN | KEMAIL_MECH_LOGIN;
    std::strcpy(cert.szUser, "user");
    std::strcpy(cert.szPassword, "wrong");
    MailAuthInfo auth{KEMAIL_AUTH_SMTP, 0, &cert};
    Script s;
    greet(s, "250-kemail-test\r\n250 AUTH PLAIN LOGIN CRAM-MD5\r\n")
        .read_line()  // AUTH PLAIN ...
        .send("535 5.7.8 Error: authentication failed\r\n")
        .read_line()  // AUTH LOGIN
        .send("535 5.7.8 Error: authentication failed\r\n")
        .read_line()  // MAIL FROM
        .send("250 2.1.0 Ok\r\n")
        .read_line()  // RCPT TO
        .send("554 5.7.1 Relay access denied\r\n")
        .drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    mail.auth = &auth;
    EXPECT_EQ(mail.send(), KEMAIL_E_AUTH_REFUSED);
    EXPECT_STREQ(mail.message, "554 5.7.1 Relay access denied\r\n");
    const auto records = server.records();
    ASSERT_GE(records.size(), 3u);
    EXPECT_EQ(records[1], "AUTH PLAIN dXNlcgB1c2VyAHdyb25n\r\n");
    EXPECT_EQ(records[2], "AUTH LOGIN\r\n");
}

TEST_F(SendResults, RefusedMailWithoutAuthWantedStaysMinus6) {
    Script s;
    greet(s).read_line().send("553 5.1.8 Sender address rejected\r\n").drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_REFUSED);
    EXPECT_STREQ(mail.message, "553 5.1.8 Sender address rejected\r\n");
}

TEST_F(SendResults, LongReplyIsCutTo255Characters) {
    const std::string reply = "550 " + std::string(400, 'x') + "\r\n";
    Script s;
    greet(s).read_line().send(reply).drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_REFUSED);
    EXPECT_EQ(std::string(mail.message), reply.substr(0, 255));
}

TEST_F(SendResults, QuitThatCannotBeSentStillFailsAfterTheMailWasAccepted) {
    Script s;
    greet(s);
    transaction(s).reset();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    // The reset may reach the library while it sends QUIT (-7) or while it
    // waits for the reply, which QUIT does not judge (0).
    const int result = mail.send();
    EXPECT_TRUE(result == KEMAIL_OK || result == KEMAIL_E_SOCKET) << result;
    if (result == KEMAIL_E_SOCKET) {
        EXPECT_STRNE(mail.message, "");
    }
}

TEST_F(SendResults, ConcurrentSendIsAnsweredBusyAndLeavesTheMessageAlone) {
    Script s;
    s.sleep_ms(1500);  // hold the first send in its greeting
    greet(s);
    transaction(s);
    quit(s);
    ScriptServer server(std::move(s));

    std::atomic<int> first_result{999};
    std::thread first([&] {
        Mail mail(server.port());
        first_result = mail.send();
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (server.connections() == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(server.connections(), 1);
    EXPECT_EQ(g_ulSendBusy, 1u);

    Mail second(server.port());
    EXPECT_EQ(second.send(), KEMAIL_E_BUSY);
    EXPECT_STREQ(second.message, "(untouched)");
    first.join();
    EXPECT_EQ(first_result.load(), KEMAIL_OK);
    EXPECT_EQ(g_ulSendBusy, 0u);

    Mail after(25);  // the flag is free again: this call gets as far as its checks
    after.split = 7;
    EXPECT_EQ(after.send(), KEMAIL_E_ARGUMENT);
}

TEST_F(SendResults, RacingThreadsEitherSendOrAreToldBusy) {
    kemail_test::SmtpSink sink;
    constexpr int kThreads = 4;
    std::atomic<int> ok{0}, busy{0}, other{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            while (!go) std::this_thread::yield();
            for (int i = 0; i < 25; ++i) {
                Mail mail(sink.port());
                const int result = mail.send();
                (result == KEMAIL_OK ? ok : result == KEMAIL_E_BUSY ? busy : other)++;
            }
        });
    }
    go = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(other.load(), 0);
    EXPECT_EQ(ok.load() + busy.load(), kThreads * 25);
    EXPECT_GT(ok.load(), 0);
    EXPECT_EQ(sink.messages(), static_cast<unsigned long>(ok.load()));
}

}  // namespace
}  // namespace send_test
