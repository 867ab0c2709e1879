// SMTP_connect with ADDRESS_FAMILY=any: a literal IPv6 address, names of
// either family, and the designed path untouched without the key.
#include "dialogue.h"
#include "support/fake_clock.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace {

using kemail_test::Loopback;
using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

class ConnectAnyFamily : public ::testing::Test {
protected:
    void SetUp() override {
        set_phase_timeouts(5);
        trace_clear();
        ASSERT_EQ(ZvKe_SetOption("ADDRESS_FAMILY", "any"), 0);
    }
    void TearDown() override { ZvKe_SetOption("ADDRESS_FAMILY", nullptr); }
    unsigned int err = 777;
};

TEST_F(ConnectAnyFamily, ALiteralIpv6AddressIsConnectedTo) {
    if (!kemail_test::has_ipv6_loopback()) GTEST_SKIP() << "lo has no ::1 on this host";
    ScriptServer server(Script().bound_ms(2000).drain(), Loopback::Ipv6);
    const int sock = SMTP_connect("::1", server.port(), &err);
    ASSERT_GE(sock, 0) << err;
    EXPECT_EQ(err, 0u);
    close(sock);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.connections(), 1);
    EXPECT_TRUE(traced_in_order({"smtp0000", "getsmtp0000", "getsmtp0040", "getsmtp0041",
                                 "getsmtpFFFF", "smtp0023", "smtp0021", "smtp0050"}));
    EXPECT_EQ(trace_find("getsmtpFFFF").data.size(), 16u) << "the IPv6 address";
    const TraceEvent connected = trace_find("smtp0021");
    ASSERT_EQ(connected.data.size(), sizeof(sockaddr_in6));
    sockaddr_in6 peer;
    std::memcpy(&peer, connected.data.data(), sizeof peer);
    EXPECT_EQ(peer.sin6_family, AF_INET6);
    EXPECT_EQ(ntohs(peer.sin6_port), server.port());
    EXPECT_EQ(trace_find("smtp0050").level, 1u);
    EXPECT_EQ(trace_count("getsmtp0010"), 0) << "no IPv4 literal record";
}

TEST_F(ConnectAnyFamily, AnIpv4AddressStillConnects) {
    ScriptServer server(Script().bound_ms(2000).drain());
    const int sock = SMTP_connect("127.0.0.1", server.port(), &err);
    ASSERT_GE(sock, 0);
    close(sock);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(trace_find("smtp0021").data.size(), sizeof(sockaddr_in));
    EXPECT_EQ(trace_find("getsmtpFFFF").data.size(), 4u);
}

TEST_F(ConnectAnyFamily, ARefusingIpv6ServerGivesMinus2AfterTheDesignedRetries) {
    if (!kemail_test::has_ipv6_loopback()) GTEST_SKIP() << "lo has no ::1 on this host";
    // A port bound on [::1] that does not listen refuses connections.
    const int bound = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(bound, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(bound, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(getsockname(bound, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const uint16_t port = ntohs(address.sin6_port);
    kemail_test::FakeClock clock;  // the one-second pauses between rounds
    EXPECT_EQ(SMTP_connect("::1", port, &err), -2);
    EXPECT_EQ(err, 111u);
    EXPECT_EQ(trace_count("smtp0040"), 6);
    EXPECT_EQ(trace_count("smtp0022"), 5);
    EXPECT_EQ(trace_find("smtp0050").level, 0u);
    close(bound);
}

TEST_F(ConnectAnyFamily, AnUnknownNameGivesMinus5) {
    EXPECT_EQ(SMTP_connect("no-such-host.invalid", 25, &err), -5);
    EXPECT_NE(err, 0u);
    EXPECT_TRUE(traced_in_order({"smtp0000", "getsmtp0000", "getsmtp0031", "smtp0010"}));
    EXPECT_EQ(trace_count("getsmtp0030"), 0);
}

// Without the key a literal IPv6 address is a name the IPv4 resolver does not
// know: the designed -5 and its records.
TEST(ConnectIpv4Only, ALiteralIpv6AddressIsNotResolvedWithoutTheKey) {
    set_phase_timeouts(5);
    trace_clear();
    unsigned int err = 0;
    EXPECT_EQ(SMTP_connect("::1", 25, &err), -5);
    EXPECT_TRUE(traced_in_order({"smtp0000", "getsmtp0000", "getsmtp0030", "smtp0010"}));
    EXPECT_EQ(trace_count("getsmtp0041"), 0);
}

}  // namespace
