// A server that stops answering: the phase time-out ends the send with -4.
// The shortest time-out a caller may give is 60 seconds: the test takes it on
// the test clock (support/fake_clock.h) and still sees a minute pass.
#include "send_fixture.h"
#include "support/fake_clock.h"

#include <unistd.h>

#include <chrono>
#include <string>

namespace send_test {
namespace {

class SendTimeOut : public SendTest {};

TEST_F(SendTimeOut, SilentServerGivesMinus4AfterThePhaseTimeOut) {
    Script s;
    s.bound_ms(120000);
    greet(s).read_line().sleep_ms(75000);  // MAIL FROM is never answered
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    mail.timeout = MailTimeoutInfo{60, 60, 60, 60, 60, 60};
    kemail_test::FakeClock clock;

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mail.send(), KEMAIL_E_TIMEOUT);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::seconds(59));
    EXPECT_STREQ(mail.message, "");
    EXPECT_EQ(mask_variable(server.received()).substr(0, 4), "EHLO");

    const std::string log = kemail_test::read_file(kemail_test::var_dir() + "/log/kesmtp" +
                                                   std::to_string(getpid()) + ".log");
    EXPECT_NE(log.find(" -: ERROR: SMTP TIMEOUT (timer=60) recv\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" S: MAIL FROM:<sender@example.test>\r\n"), std::string::npos) << log;
}

}  // namespace
}  // namespace send_test
