// The resolve, connect and line-reading routines the SMTP session and the
// POP3 client share.
#include "net/net.h"
#include "pop3/pop3_test_support.h"
#include "support/script_server.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

namespace net = kemail::net;
using kemail_test::RefusedPort;
using kemail_test::Script;
using kemail_test::ScriptServer;
using pop3_test::count_of;
using pop3_test::TraceCapture;

// A connected pair of stream sockets, closed at the end.
struct Pair {
    Pair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0); }
    ~Pair() {
        for (int fd : fds) {
            if (fd >= 0) ::close(fd);
        }
    }
    void peer_send(const std::string& bytes) const {
        ASSERT_EQ(::send(fds[1], bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
    }
    // What is left for our side to read now.
    std::string left() const {
        char buf[256];
        const ssize_t n = ::recv(fds[0], buf, sizeof buf, MSG_DONTWAIT);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    }
    void close_peer() {
        ::close(fds[1]);
        fds[1] = -1;
    }
    int ours() const { return fds[0]; }
    int fds[2] = {-1, -1};
};

// Waits a fixed time and records what the reader asked of it.
class RecordingWait final : public net::LineWait {
public:
    explicit RecordingWait(time_t seconds) : seconds_(seconds) {}
    void compute(struct timeval* wait) override {
        ++computed;
        wait->tv_sec = seconds_;
        wait->tv_usec = 0;
    }
    void retrying(net::Retry event, int) override { retries.push_back(event); }
    int computed = 0;
    std::vector<net::Retry> retries;

private:
    time_t seconds_;
};

TEST(NetReadLine, TakesTheLineUpToItsCrLfAndLeavesWhatFollows) {
    Pair pair;
    pair.peer_send("ab\ncd\r\nnext");
    RecordingWait wait(5);
    char buf[64] = {};
    const net::LineRead read =
        net::read_line(pair.ours(), buf, sizeof buf, net::LineEnd::CrLf, wait);
    EXPECT_EQ(read.status, net::LineStatus::Done);
    EXPECT_EQ(std::string(buf, read.count), "ab\ncd\r\n");
    EXPECT_EQ(pair.left(), "next");
    EXPECT_EQ(wait.computed, 1);
}

TEST(NetReadLine, ALoneLfEndsTheLineWhenAsked) {
    Pair pair;
    pair.peer_send("ab\ncd\r\n");
    RecordingWait wait(5);
    char buf[64] = {};
    const net::LineRead read = net::read_line(pair.ours(), buf, sizeof buf, net::LineEnd::Lf, wait);
    EXPECT_EQ(read.status, net::LineStatus::Done);
    EXPECT_EQ(std::string(buf, read.count), "ab\n");
    EXPECT_EQ(pair.left(), "cd\r\n");
}

TEST(NetReadLine, AFullBufferEndsTheReadWithoutALineEnd) {
    Pair pair;
    pair.peer_send("abcdefg\r\n");
    RecordingWait wait(5);
    char buf[8] = {};
    const net::LineRead read = net::read_line(pair.ours(), buf, 4, net::LineEnd::CrLf, wait);
    EXPECT_EQ(read.status, net::LineStatus::Done);
    EXPECT_EQ(std::string(buf, read.count), "abcd");
    EXPECT_EQ(buf[4], '\0');  // nothing stored beyond the capacity
    EXPECT_EQ(pair.left(), "efg\r\n");
}

TEST(NetReadLine, SixEmptyReadsInARowMeanThePeerClosed) {
    Pair pair;
    pair.peer_send("part");
    pair.close_peer();
    RecordingWait wait(5);
    char buf[64] = {};
    const net::LineRead read = net::read_line(pair.ours(), buf, sizeof buf, net::LineEnd::Lf, wait);
    EXPECT_EQ(read.status, net::LineStatus::PeerClosed);
    EXPECT_EQ(read.count, 4u);
    EXPECT_EQ(wait.retries, std::vector<net::Retry>(5, net::Retry::PeerClosed));
    EXPECT_EQ(wait.computed, 6);  // once at the start, again after every retry
}

TEST(NetReadLine, SilenceEndsAfterTheComputedWait) {
    Pair pair;
    RecordingWait wait(0);
    char buf[64] = {};
    const net::LineRead read =
        net::read_line(pair.ours(), buf, sizeof buf, net::LineEnd::CrLf, wait);
    EXPECT_EQ(read.status, net::LineStatus::TimedOut);
    EXPECT_EQ(read.count, 0u);
    EXPECT_EQ(wait.computed, 1);
    EXPECT_TRUE(wait.retries.empty());
}

TEST(NetReadLine, ADescriptorSelectCannotWatchFailsBeforeAnyWait) {
    RecordingWait wait(5);
    char buf[8] = {};
    for (int sock : {-1, FD_SETSIZE}) {
        const net::LineRead read = net::read_line(sock, buf, sizeof buf, net::LineEnd::CrLf, wait);
        EXPECT_EQ(read.status, net::LineStatus::SelectFailed);
        EXPECT_EQ(read.result, -1);
        EXPECT_EQ(read.error, EBADF);
    }
    EXPECT_EQ(wait.computed, 0);
}

constexpr net::ConnectCodes kCodes{.before_socket = "T_socket",
                                   .before_connect = "T_connect",
                                   .attempt_failed = "T_failed",
                                   .retrying = "T_retry",
                                   .refused_retries = 1};

sockaddr_in loopback(uint16_t port) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return peer;
}

TEST(NetConnect, ARefusalIsRetriedTheGivenNumberOfTimes) {
    RefusedPort refused;
    TraceCapture trace("net_refused");
    const net::Connection connection =
        net::connect_ipv4(loopback(refused.port()), kCodes, trace.handle());
    EXPECT_EQ(connection.sock, -1);
    EXPECT_EQ(connection.failed, net::Failed::Connect);
    EXPECT_EQ(connection.result, -1);
    EXPECT_EQ(connection.error, ECONNREFUSED);
    const std::vector<std::string> codes = trace.codes();
    EXPECT_EQ(count_of(codes, "T_socket"), 2);
    EXPECT_EQ(count_of(codes, "T_connect"), 2);
    EXPECT_EQ(count_of(codes, "T_failed"), 2);
    EXPECT_EQ(count_of(codes, "T_retry"), 1);
}

TEST(NetConnect, ConnectsToAListeningPeer) {
    ScriptServer server(Script().send("hello\n"));
    TraceCapture trace("net_connected");
    const net::Connection connection =
        net::connect_ipv4(loopback(server.port()), kCodes, trace.handle());
    ASSERT_GE(connection.sock, 0);
    EXPECT_EQ(connection.failed, net::Failed::Nothing);
    ASSERT_TRUE(server.wait_done());
    ::close(connection.sock);
    EXPECT_EQ(count_of(trace.codes(), "T_failed"), 0);
}

constexpr net::ResolveCodes kResolve{.start = "R_start",
                                     .literal = "R_literal",
                                     .busy = "R_busy",
                                     .answered = "R_answered",
                                     .resolved = "R_resolved"};

TEST(NetResolve, ADottedAddressIsTakenWithoutALookup) {
    TraceCapture trace("net_literal");
    const net::Resolved resolved =
        net::resolve_ipv4("127.0.0.1", kResolve, net::Answer::MustBeAServer, trace.handle());
    EXPECT_EQ(resolved.address, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(resolved.error, 0);
    EXPECT_EQ(trace.codes(), (std::vector<std::string>{"R_start", "R_literal"}));
}

TEST(NetResolve, TheAllOnesAnswerCountsOnlyWhenTakenAsGiven) {
    const net::Resolved taken =
        net::resolve_ipv4("255.255.255.255", kResolve, net::Answer::TakenAsGiven, nullptr);
    EXPECT_EQ(taken.address, INADDR_NONE);
    EXPECT_EQ(taken.error, 0);
    const net::Resolved refused =
        net::resolve_ipv4("255.255.255.255", kResolve, net::Answer::MustBeAServer, nullptr);
    EXPECT_EQ(refused.address, INADDR_NONE);
    EXPECT_EQ(refused.error, HOST_NOT_FOUND);
}

// ---- ADDRESS_FAMILY=any --------------------------------------------------

constexpr net::AddressListCodes kList{.start = "A_start",
                                      .busy = "A_busy",
                                      .answered = "A_answered",
                                      .address = "A_address",
                                      .resolved = "A_resolved"};

TEST(NetResolveAny, ALiteralIpv6AddressIsTakenAsItIs) {
    TraceCapture trace("net_any_literal6");
    const net::ResolvedList resolved = net::resolve_any("::1", kList, trace.handle());
    ASSERT_EQ(resolved.error, 0);
    ASSERT_NE(resolved.list, nullptr);
    EXPECT_EQ(resolved.list->ai_family, AF_INET6);
    EXPECT_EQ(resolved.list->ai_next, nullptr);
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(resolved.list->ai_addr);
    EXPECT_TRUE(IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr));
    EXPECT_EQ(trace.codes(),
              (std::vector<std::string>{"A_start", "A_answered", "A_address", "A_resolved"}));
}

TEST(NetResolveAny, ADottedAddressGivesItsIpv4Address) {
    const net::ResolvedList resolved = net::resolve_any("127.0.0.1", kList, nullptr);
    ASSERT_EQ(resolved.error, 0);
    ASSERT_NE(resolved.list, nullptr);
    ASSERT_EQ(resolved.list->ai_family, AF_INET);
    EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(resolved.list->ai_addr)->sin_addr.s_addr,
              htonl(INADDR_LOOPBACK));
}

TEST(NetResolveAny, SetPortReachesEveryAddress) {
    net::ResolvedList first = net::resolve_any("::1", kList, nullptr);
    net::ResolvedList second = net::resolve_any("127.0.0.1", kList, nullptr);
    ASSERT_EQ(first.error, 0);
    ASSERT_EQ(second.error, 0);
    first.list->ai_next = second.list.get();
    net::set_port(first.list.get(), htons(2525));
    EXPECT_EQ(reinterpret_cast<sockaddr_in6*>(first.list->ai_addr)->sin6_port, htons(2525));
    EXPECT_EQ(reinterpret_cast<sockaddr_in*>(second.list->ai_addr)->sin_port, htons(2525));
    first.list->ai_next = nullptr;  // each list frees its own
}

// Two addresses by hand, as a name with two entries resolves: the first one
// at a port that refuses, the second one at port `second`.
struct TwoAddresses {
    TwoAddresses(uint16_t refusing, uint16_t second) {
        a = loopback(refusing);
        b = loopback(second);
        entries[0].ai_family = AF_INET;
        entries[0].ai_socktype = SOCK_STREAM;
        entries[0].ai_addr = reinterpret_cast<sockaddr*>(&a);
        entries[0].ai_addrlen = sizeof a;
        entries[0].ai_next = &entries[1];
        entries[1] = entries[0];
        entries[1].ai_addr = reinterpret_cast<sockaddr*>(&b);
        entries[1].ai_next = nullptr;
    }
    sockaddr_in a{};
    sockaddr_in b{};
    addrinfo entries[2]{};
};

TEST(NetConnectAny, TheNextAddressIsTriedAtOnceWhenTheFirstRefuses) {
    RefusedPort refused;
    ScriptServer server(Script().send("hello\n"));
    const TwoAddresses two(refused.port(), server.port());
    TraceCapture trace("net_any_next");
    const net::AnyConnection outcome =
        net::connect_any(two.entries, kCodes, "T_trying", trace.handle());
    ASSERT_GE(outcome.connection.sock, 0);
    EXPECT_EQ(outcome.connection.failed, net::Failed::Nothing);
    ASSERT_EQ(outcome.peer_length, sizeof(sockaddr_in));
    EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(&outcome.peer)->sin_port, htons(server.port()));
    ASSERT_TRUE(server.wait_done());
    ::close(outcome.connection.sock);
    const std::vector<std::string> codes = trace.codes();
    EXPECT_EQ(count_of(codes, "T_trying"), 2);
    EXPECT_EQ(count_of(codes, "T_failed"), 1);
    EXPECT_EQ(count_of(codes, "T_retry"), 0) << "no pause before the second address";
}

TEST(NetConnectAny, ARoundOfRefusalsIsRetriedTheGivenNumberOfTimes) {
    RefusedPort first;
    RefusedPort second;
    const TwoAddresses two(first.port(), second.port());
    TraceCapture trace("net_any_refused");
    const net::AnyConnection outcome =
        net::connect_any(two.entries, kCodes, "T_trying", trace.handle());
    EXPECT_EQ(outcome.connection.sock, -1);
    EXPECT_EQ(outcome.connection.failed, net::Failed::Connect);
    EXPECT_EQ(outcome.connection.error, ECONNREFUSED);
    const std::vector<std::string> codes = trace.codes();
    EXPECT_EQ(count_of(codes, "T_trying"), 4);
    EXPECT_EQ(count_of(codes, "T_failed"), 4);
    EXPECT_EQ(count_of(codes, "T_retry"), 1);
}

TEST(NetConnectAny, ConnectsToAnIpv6Peer) {
    if (!kemail_test::has_ipv6_loopback()) GTEST_SKIP() << "lo has no ::1 on this host";
    ScriptServer server(Script().send("hello\n"), kemail_test::Loopback::Ipv6);
    net::ResolvedList resolved = net::resolve_any("::1", kList, nullptr);
    ASSERT_EQ(resolved.error, 0);
    net::set_port(resolved.list.get(), htons(server.port()));
    const net::AnyConnection outcome =
        net::connect_any(resolved.list.get(), kCodes, "T_trying", nullptr);
    ASSERT_GE(outcome.connection.sock, 0);
    EXPECT_EQ(outcome.peer.ss_family, AF_INET6);
    char line[16] = {};
    EXPECT_EQ(::recv(outcome.connection.sock, line, sizeof line - 1, 0), 6);
    EXPECT_STREQ(line, "hello\n");
    ::close(outcome.connection.sock);
    ASSERT_TRUE(server.wait_done());
}

}  // namespace
