#include "dialogue.h"
#include "support/fake_clock.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

namespace {

using kemail_test::RefusedPort;
using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

class Connect : public ::testing::Test {
protected:
    void SetUp() override {
        set_phase_timeouts(5);
        trace_clear();
    }
    unsigned int err = 777;
};

TEST_F(Connect, ADottedAddressIsTakenAsItIs) {
    EXPECT_EQ(SMTP_resolveHost("127.0.0.1", &err), htonl(0x7f000001));
    EXPECT_EQ(word_of(trace_find("getsmtp0010")), htonl(0x7f000001));
    EXPECT_EQ(trace_count("getsmtp0040"), 0);
}

TEST_F(Connect, ANameIsLookedUp) {
    EXPECT_EQ(SMTP_resolveHost("localhost", &err), htonl(0x7f000001));
    EXPECT_TRUE(traced_in_order({"getsmtp0000", "getsmtp0040", "getsmtpFFFF"}));
}

TEST_F(Connect, AnUnknownNameGivesMinus5) {
    EXPECT_EQ(SMTP_resolveHost("no-such-host.invalid", &err), 0xFFFFFFFFu);
    EXPECT_NE(err, 0u);
    EXPECT_EQ(trace_find("getsmtp0030").level, 0u);
    trace_clear();
    EXPECT_EQ(SMTP_connect("no-such-host.invalid", 25, &err), -5);
    EXPECT_TRUE(traced_in_order({"smtp0000", "getsmtp0030", "smtp0010"}));
}

// The literal reads as inet_addr's failure value, so it goes to the
// resolver, which answers with the same address; that answer is traced as
// resolved and then fails the connection as unresolved.
TEST_F(Connect, AllOnesIsLookedUpAsANameAndGivesMinus5) {
    err = 0;
    EXPECT_EQ(SMTP_resolveHost("255.255.255.255", &err), 0xFFFFFFFFu);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(trace_count("getsmtp0010"), 0);
    EXPECT_EQ(trace_count("getsmtp0030"), 0);
    EXPECT_TRUE(traced_in_order({"getsmtp0000", "getsmtp0040", "getsmtpFFFF"}));
    EXPECT_EQ(word_of(trace_find("getsmtpFFFF")), 0xFFFFFFFFu);
    trace_clear();
    EXPECT_EQ(SMTP_connect("255.255.255.255", 25, &err), -5);
    EXPECT_TRUE(traced_in_order({"smtp0000", "getsmtpFFFF", "smtp0010"}));
    EXPECT_EQ(trace_count("smtp0020"), 0);
    EXPECT_EQ(trace_count("smtp0040"), 0);
}

TEST_F(Connect, ConnectsAndStartsTheConnectionPhase) {
    const SmtpTimeOut values = {21, 22, 23, 24, 25, 26};
    SMTP_SetTimeOutInfo(&values);
    ScriptServer server(Script().bound_ms(2000).drain());
    unsigned int error = 5;
    const int sock = SMTP_connect("127.0.0.1", server.port(), &error);
    ASSERT_GE(sock, 0);
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(g_ulTimeOut, 21u);
    // Commands wait for their replies: no Nagle delay on the session.
    int no_delay = 0;
    socklen_t length = sizeof no_delay;
    ASSERT_EQ(getsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &no_delay, &length), 0);
    EXPECT_EQ(no_delay, 1);
    close(sock);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.connections(), 1);
    EXPECT_EQ(trace_find("smtp0000").data, "127.0.0.1");
    const TraceEvent connected = trace_find("smtp0021");
    ASSERT_EQ(connected.data.size(), 16u);
    sockaddr_in peer;
    std::memcpy(&peer, connected.data.data(), sizeof peer);
    EXPECT_EQ(ntohs(peer.sin_port), server.port());
    EXPECT_EQ(trace_find("smtp0050").level, 1u);
    EXPECT_EQ(word_of(trace_find("smtp0050")), static_cast<uint32_t>(sock));
}

// Takes about five seconds: six attempts one second apart.
TEST_F(Connect, ARefusingServerIsTriedSixTimesThenMinus2WithErrno111) {
    RefusedPort refused;
    kemail_test::FakeClock clock;  // the one-second pauses between tries
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SMTP_connect("127.0.0.1", refused.port(), &err), -2);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4900));
    EXPECT_EQ(err, 111u);
    EXPECT_EQ(trace_count("smtp0040"), 6);
    EXPECT_EQ(trace_count("smtp0022"), 5);
    const TraceEvent gave_up = trace_events().back();
    EXPECT_EQ(gave_up.code, "smtp0050");
    EXPECT_EQ(gave_up.level, 0u);
    EXPECT_EQ(word_of(gave_up), 111u);
}

// The port-0 cases run in a child process with a network and mount
// namespace of its own: there port 25 on its loopback is free to listen on,
// and /etc/services can be replaced for the lookup.
enum ChildFailure {
    kOk = 0,
    kNamespace = 10,
    kLoopback,
    kListen,
    kServicesFile,
    kConnect,
    kWrongPort,
    kWrongTrace,
};

bool bring_loopback_up() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    struct ifreq request;
    std::memset(&request, 0, sizeof request);
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags |= IFF_UP;
    up = up && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    return up;
}

int listen_on(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 4) != 0) {
        return -1;
    }
    return fd;
}

// Connects with port 0 while `services` stands as /etc/services and checks
// that the connection went to `expected_port` after the traces `path`.
int port_zero_child(const std::string& services, uint16_t expected_port,
                    const std::vector<std::string>& path) {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return kNamespace;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return kNamespace;
    if (!bring_loopback_up()) return kLoopback;
    const int listener = listen_on(expected_port);
    if (listener < 0) return kListen;
    char name[] = "/tmp/kemail-services.XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0 ||
        write(fd, services.data(), services.size()) != static_cast<ssize_t>(services.size())) {
        return kServicesFile;
    }
    close(fd);
    const int mounted = mount(name, "/etc/services", nullptr, MS_BIND, nullptr);
    unlink(name);
    if (mounted != 0) return kServicesFile;

    trace_clear();
    unsigned int err = 0;
    const int sock = SMTP_connect("127.0.0.1", 0, &err);
    if (sock < 0) return kConnect;
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
        ntohs(peer.sin_port) != expected_port) {
        return kWrongPort;
    }
    return traced_in_order(path) ? kOk : kWrongTrace;
}

// Any connect error but a refusal ends the attempts at once: in a network
// namespace with only the loopback, a foreign address is unreachable.
int unreachable_child() {
    if (unshare(CLONE_NEWNET) != 0) return kNamespace;
    if (!bring_loopback_up()) return kLoopback;
    trace_clear();
    unsigned int err = 0;
    if (SMTP_connect("192.0.2.1", 25, &err) != -2 || err != ENETUNREACH) return kConnect;
    if (trace_count("smtp0040") != 1 || trace_count("smtp0022") != 0) return kWrongTrace;
    return kOk;
}

template <typename Body>
int run_in_child(Body body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int run_in_child(const std::string& services, uint16_t port, const std::vector<std::string>& path) {
    const pid_t child = fork();
    if (child == 0) _exit(port_zero_child(services, port, path));
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(Connect, OtherConnectErrorsAreNotRetried) {
    EXPECT_EQ(run_in_child(unreachable_child), kOk);
}

TEST_F(Connect, PortZeroWithoutAnyServiceEntryUses25) {
    EXPECT_EQ(run_in_child("# no entries\n", 25, {"smtp0011L", "smtp1011L", "smtp0021"}), kOk);
}

TEST_F(Connect, PortZeroTriesTheUpperCaseServiceFirst) {
    EXPECT_EQ(run_in_child("SMTP 2601/tcp\nsmtp 2602/tcp\n", 2601, {"smtp0012L", "smtp0021"}), kOk);
}

TEST_F(Connect, PortZeroFallsBackToTheLowerCaseService) {
    EXPECT_EQ(run_in_child("smtp 2602/tcp mail\n", 2602, {"smtp0011L", "smtp1012L", "smtp0021"}),
              kOk);
}

}  // namespace
