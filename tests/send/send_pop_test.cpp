// POP before SMTP through the send entry, against a scripted POP3 server:
// the results -15 to -18 with their message texts, and a log-in that opens
// the way for the mail.
#include "send_fixture.h"
#include "support/fake_clock.h"

#include <chrono>
#include <cstring>

namespace send_test {
namespace {

using kemail_test::RefusedPort;

PopBeforeSmtpInfo pop_settings(uint16_t port, int wait_ms = 0) {
    PopBeforeSmtpInfo pop{};
    pop.ulPort = port;
    pop.lWait = wait_ms;
    std::strcpy(pop.szUser, "popuser");
    std::strcpy(pop.szPassword, "poppass");
    std::strcpy(pop.szHost, "127.0.0.1");
    pop.usTimeOut = 60;
    return pop;
}

Script& pop_login(Script& s) {
    return s.send("+OK POP3 ready\r\n").read_line().send("+OK\r\n").read_line();
}

class PopBeforeSmtp : public SendTest {};

TEST_F(PopBeforeSmtp, LogInThenTheMailIsSent) {
    Script p;
    pop_login(p)
        .send("+OK Logged in.\r\n")
        .read_line()
        .send("+OK 0 0\r\n")
        .read_line()
        .send("+OK Logging out.\r\n");
    ScriptServer pop_server(std::move(p));
    ScriptServer smtp_server(whole_mail_script());
    PopBeforeSmtpInfo pop = pop_settings(pop_server.port(), 300);
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &pop};
    Mail mail(smtp_server.port());
    mail.auth = &auth;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300))
        << "the wait after the POP session";
    ASSERT_TRUE(pop_server.wait_done());
    EXPECT_EQ(
        pop_server.records(),
        (std::vector<std::string>{"USER popuser\r\n", "PASS poppass\r\n", "STAT\r\n", "QUIT\r\n"}));
    ASSERT_TRUE(smtp_server.wait_done());
    EXPECT_FALSE(smtp_server.failed()) << smtp_server.error();
}

TEST_F(PopBeforeSmtp, RefusedPasswordGivesMinus15WithTheReply) {
    Script p;
    pop_login(p).send("-ERR [AUTH] Authentication failed.\r\n").drain();
    ScriptServer pop_server(std::move(p));
    PopBeforeSmtpInfo pop = pop_settings(pop_server.port());
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &pop};
    Mail mail(25);
    mail.auth = &auth;
    EXPECT_EQ(mail.send(), KEMAIL_E_POP_REFUSED);
    EXPECT_STREQ(mail.message, "-ERR [AUTH] Authentication failed.\r\n");
}

TEST_F(PopBeforeSmtp, RefusedStatGivesMinus15WithTheReply) {
    Script p;
    pop_login(p).send("+OK Logged in.\r\n").read_line().send("-ERR mailbox locked\r\n").drain();
    ScriptServer pop_server(std::move(p));
    PopBeforeSmtpInfo pop = pop_settings(pop_server.port());
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &pop};
    Mail mail(25);
    mail.auth = &auth;
    EXPECT_EQ(mail.send(), KEMAIL_E_POP_REFUSED);
    EXPECT_STREQ(mail.message, "-ERR mailbox locked\r\n");
}

TEST_F(PopBeforeSmtp, ResetConnectionGivesMinus16WithTheErrorNumber) {
    Script p;
    p.send("+OK POP3 ready\r\n").read_line().reset();
    ScriptServer pop_server(std::move(p));
    PopBeforeSmtpInfo pop = pop_settings(pop_server.port());
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &pop};
    Mail mail(25);
    mail.auth = &auth;
    EXPECT_EQ(mail.send(), KEMAIL_E_POP_SYSTEM);
    EXPECT_STREQ(mail.message, "104");  // ECONNRESET
}

TEST_F(PopBeforeSmtp, UnreachableServerGivesMinus18WithTheErrorNumber) {
    RefusedPort refused;
    kemail_test::FakeClock clock;  // the one-second pauses between tries
    PopBeforeSmtpInfo pop = pop_settings(refused.port());
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &pop};
    Mail mail(25);
    mail.auth = &auth;
    EXPECT_EQ(mail.send(), KEMAIL_E_POP_UNREACHABLE);
    EXPECT_STREQ(mail.message, "111");  // ECONNREFUSED, after the retries
}

// The shortest POP time-out is 60 seconds, taken on the test clock.
TEST_F(PopBeforeSmtp, SilentServerGivesMinus17AfterTheTimeOut) {
    kemail_test::FakeClock clock;
    Script p;
    p.sleep_ms(120000);  // never greets; the destructor ends the wait
    ScriptServer pop_server(std::move(p));
    PopBeforeSmtpInfo pop = pop_settings(pop_server.port());
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &pop};
    Mail mail(25);
    mail.auth = &auth;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mail.send(), KEMAIL_E_POP_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(59));
    EXPECT_STREQ(mail.message, "");
}

}  // namespace
}  // namespace send_test
