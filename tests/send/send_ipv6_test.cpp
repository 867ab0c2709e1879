// A whole send to [::1] with ADDRESS_FAMILY=any; without the key the same
// server argument is a name the IPv4 resolver does not know.
#include "send_fixture.h"

namespace send_test {
namespace {

using kemail_test::Loopback;

TEST_F(SendTest, WithAddressFamilyAnyAMailGoesToAnIpv6Server) {
    if (!kemail_test::has_ipv6_loopback()) GTEST_SKIP() << "lo has no ::1 on this host";
    ASSERT_EQ(ZvKe_SetOption("ADDRESS_FAMILY", "any"), 0);
    ScriptServer server(whole_mail_script(), Loopback::Ipv6);
    Mail mail(server.port());
    mail.server = "::1";
    EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    ZvKe_SetOption("ADDRESS_FAMILY", nullptr);
    ASSERT_TRUE(server.wait_done());
    const auto records = server.records();
    ASSERT_EQ(records.size(), 6u);
    EXPECT_EQ(records[0], "EHLO " + host_name() + "\r\n") << "the designed host name rule";
    EXPECT_EQ(records[1], "MAIL FROM:<sender@example.test>\r\n");
    EXPECT_NE(records[4].find("\r\nHello\r\n"), std::string::npos);
}

TEST_F(SendTest, WithoutAddressFamilyAnAnIpv6ServerIsUnreachable) {
    Mail mail(25);
    mail.server = "::1";
    EXPECT_EQ(mail.send(), KEMAIL_E_UNREACHABLE);
}

}  // namespace
}  // namespace send_test
