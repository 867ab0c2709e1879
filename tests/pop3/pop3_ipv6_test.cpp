// Pop3_Connect with ADDRESS_FAMILY=any: a literal IPv6 address and a full
// session over it; without the key the designed IPv4 resolution.
#include "kemail.h"
#include "pop3/pop3_test_support.h"
#include "support/script_server.h"

#include <gtest/gtest.h>

#include <string>

#include <unistd.h>

namespace {

using kemail_test::Loopback;
using kemail_test::Script;
using kemail_test::ScriptServer;
using pop3_test::count_of;
using pop3_test::in_order;
using pop3_test::TraceCapture;

class Pop3AnyFamily : public ::testing::Test {
protected:
    void SetUp() override {
        Pop3_SetTimeOut(5, nullptr);
        ASSERT_EQ(ZvKe_SetOption("ADDRESS_FAMILY", "any"), 0);
    }
    void TearDown() override {
        ZvKe_SetOption("ADDRESS_FAMILY", nullptr);
        Pop3_SetTimeOut(60, nullptr);
    }
};

TEST_F(Pop3AnyFamily, ASessionOverIpv6Loopback) {
    if (!kemail_test::has_ipv6_loopback()) GTEST_SKIP() << "lo has no ::1 on this host";
    ScriptServer server(Script()
                            .send("+OK POP3 ready\r\n")
                            .read_line()
                            .send("+OK\r\n")
                            .read_line()
                            .send("+OK logged in\r\n")
                            .read_line()
                            .send("+OK 0 0\r\n")
                            .read_line()
                            .send("+OK bye\r\n"),
                        Loopback::Ipv6);
    TraceCapture trace("pop3_ipv6");
    int err = -99;
    const int sock = Pop3_Connect("::1", server.port(), &err, trace.handle());
    ASSERT_GE(sock, 0) << err;
    EXPECT_EQ(err, 0);
    char reply[KEMAIL_MESSAGE_SIZE] = {};
    EXPECT_EQ(Pop3_Login(sock, "user", "secret", reply, &err, trace.handle()), 0);
    EXPECT_EQ(Pop3_STAT(sock, reply, &err, trace.handle()), 0);
    EXPECT_EQ(Pop3_Logout(sock, reply, &err, trace.handle()), 0);
    ::close(sock);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "USER user\r\nPASS secret\r\nSTAT\r\nQUIT\r\n");
    const std::vector<std::string> codes = trace.codes();
    EXPECT_TRUE(in_order(
        codes, {"Pop3_0000", "getpop0000", "getpop0040", "getpop0041", "getpopFFFF", "Pop3_0100",
                "Pop3_0200", "Pop3_0231", "Pop3_0210", "Pop3_0230", "Pop3_0240", "Pop3_03ff"}));
    EXPECT_EQ(count_of(codes, "getpop0010"), 0);
}

TEST_F(Pop3AnyFamily, AnUnknownNameGivesMinus11) {
    TraceCapture trace("pop3_ipv6_unknown");
    int err = 0;
    EXPECT_EQ(Pop3_Connect("no-such-host.invalid", 110, &err, trace.handle()), -11);
    EXPECT_NE(err, 0);
    EXPECT_TRUE(in_order(trace.codes(), {"Pop3_0000", "getpop0000", "getpop0031", "Pop3_0020"}));
}

TEST(Pop3Ipv4Only, ALiteralIpv6AddressIsAnUnknownHostWithoutTheKey) {
    TraceCapture trace("pop3_ipv4_only");
    int err = 0;
    EXPECT_EQ(Pop3_Connect("::1", 110, &err, trace.handle()), -11);
    EXPECT_TRUE(in_order(trace.codes(), {"Pop3_0000", "getpop0000", "getpop0030", "Pop3_0020"}));
    EXPECT_EQ(count_of(trace.codes(), "getpop0041"), 0);
}

}  // namespace
