// The TLS client session: verification of chain, name and address, the
// reasons given when TLS cannot be established, and the socket-like
// receive and send the line readers build on.
#include "tls/tls_session.h"

#include "tls/test_pki.h"
#include "tls/tls_server.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>

namespace {

using kemail::tls::TlsSession;
using kemail::tls::TlsSettings;
using tls_test::TestPki;
using tls_test::TlsServer;

class TlsSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pki_.ok()) << "the openssl command could not make certificates";
    }

    // Connects to the server and handshakes; returns start()'s result.
    int start(TlsServer& server, TlsSettings settings, unsigned seconds = 5) {
        fd_ = server.connect_client();
        EXPECT_GE(fd_, 0);
        return session_.start(fd_, settings, seconds, reason_, sizeof reason_);
    }
    void TearDown() override {
        if (fd_ >= 0) close(fd_);
    }

    static TlsServer::Mode tls() { return TlsServer::Mode::Tls; }

    TestPki pki_;
    TlsSession session_;
    int fd_ = -1;
    char reason_[256] = "";
};

TEST_F(TlsSessionTest, VerifiedSessionCarriesBytesBothWays) {
    std::string received;
    TlsServer server(pki_.server_cert(), pki_.server_key(), tls(), [&](SSL* ssl, int) {
        SSL_write(ssl, "220 mx ESMTP\r\n250 ok\r\n", 22);
        received = tls_test::read_exactly(ssl, 12);
    });
    const std::string ca = pki_.ca();
    ASSERT_EQ(
        start(server, {.server_name = "mx.kemail.test", .verify = true, .ca_file = ca.c_str()}), 0)
        << reason_;
    EXPECT_TRUE(session_.info().verified);
    EXPECT_EQ(std::string(session_.info().version).rfind("TLSv1.", 0), 0u)
        << session_.info().version;
    EXPECT_STRNE(session_.info().cipher, "");

    char buffer[64] = {};
    ASSERT_EQ(session_.receive(buffer, 5, true, 5), 5);
    EXPECT_EQ(std::string(buffer, 5), "220 m");
    EXPECT_TRUE(session_.pending()) << "peeked bytes stay";
    ASSERT_EQ(session_.receive(buffer, 14, false, 5), 14);
    EXPECT_EQ(std::string(buffer, 14), "220 mx ESMTP\r\n");
    ASSERT_EQ(session_.receive(buffer, sizeof buffer, false, 5), 8);
    EXPECT_EQ(std::string(buffer, 8), "250 ok\r\n");
    EXPECT_EQ(session_.send("EHLO client\r\n", 12, 5), 12);
    session_.finish();
    close(fd_);
    fd_ = -1;
    for (int i = 0; i < 200 && received.size() < 12; ++i) usleep(10000);
    EXPECT_EQ(received, "EHLO client\r");
}

TEST_F(TlsSessionTest, AnUntrustedChainIsRefusedWithItsReason) {
    TlsServer server(pki_.server_cert(), pki_.server_key(), tls(), [](SSL*, int) {});
    const std::string other = pki_.other_ca();
    EXPECT_EQ(
        start(server, {.server_name = "mx.kemail.test", .verify = true, .ca_file = other.c_str()}),
        -1);
    EXPECT_EQ(std::string(reason_).rfind("certificate verify failed: ", 0), 0u) << reason_;
    EXPECT_NE(std::string(reason_).find("issuer"), std::string::npos) << reason_;
}

TEST_F(TlsSessionTest, AnotherNameIsRefused) {
    TlsServer server(pki_.server_cert(), pki_.server_key(), tls(), [](SSL*, int) {});
    const std::string ca = pki_.ca();
    EXPECT_EQ(
        start(server, {.server_name = "other.kemail.test", .verify = true, .ca_file = ca.c_str()}),
        -1);
    EXPECT_STREQ(reason_, "certificate verify failed: hostname mismatch");
}

TEST_F(TlsSessionTest, AnAddressIsCheckedAgainstTheCertificatesAddresses) {
    const std::string ca = pki_.ca();
    {
        TlsServer server(pki_.server_cert(), pki_.server_key(), tls(), [](SSL*, int) {});
        EXPECT_EQ(
            start(server, {.server_name = "127.0.0.1", .verify = true, .ca_file = ca.c_str()}), 0)
            << reason_;
    }
    close(fd_);
    fd_ = -1;
    TlsSession second;
    TlsServer server(pki_.server_cert(), pki_.server_key(), tls(), [](SSL*, int) {});
    fd_ = server.connect_client();
    EXPECT_EQ(second.start(fd_, {.server_name = "127.0.0.2", .verify = true, .ca_file = ca.c_str()},
                           5, reason_, sizeof reason_),
              -1);
    EXPECT_STREQ(reason_, "certificate verify failed: IP address mismatch");
}

TEST_F(TlsSessionTest, WithoutVerificationAnUntrustedPeerStillEncrypts) {
    TlsServer server(pki_.server_cert(), pki_.server_key(), tls(),
                     [](SSL* ssl, int) { SSL_write(ssl, "+OK\r\n", 5); });
    const std::string other = pki_.other_ca();
    ASSERT_EQ(
        start(server, {.server_name = "wrong.name", .verify = false, .ca_file = other.c_str()}), 0)
        << reason_;
    EXPECT_FALSE(session_.info().verified);
    char buffer[8];
    EXPECT_EQ(session_.receive(buffer, sizeof buffer, false, 5), 5);
}

TEST_F(TlsSessionTest, AServerThatNeverAnswersTimesOut) {
    TlsServer server(pki_.server_cert(), pki_.server_key(), TlsServer::Mode::Silent, nullptr);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(start(server, {.server_name = "mx.kemail.test", .verify = false}, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_STREQ(reason_, "handshake failed: timed out");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
    close(fd_);  // lets the silent server go
    fd_ = -1;
}

TEST_F(TlsSessionTest, AServerThatDoesNotSpeakTlsFailsTheHandshake) {
    TlsServer server(pki_.server_cert(), pki_.server_key(), TlsServer::Mode::Plain,
                     [](SSL*, int fd) {
                         const char greeting[] = "220 plain ESMTP\r\n";
                         send(fd, greeting, sizeof greeting - 1, MSG_NOSIGNAL);
                     });
    EXPECT_EQ(start(server, {.server_name = "mx.kemail.test", .verify = false}), -1);
    EXPECT_EQ(std::string(reason_).rfind("handshake failed: ", 0), 0u) << reason_;
}

TEST_F(TlsSessionTest, AClosedConnectionReadsAsEnd) {
    TlsServer server(pki_.server_cert(), pki_.server_key(), tls(),
                     [](SSL* ssl, int) { SSL_shutdown(ssl); });
    ASSERT_EQ(start(server, {.server_name = "mx.kemail.test", .verify = false}), 0) << reason_;
    char buffer[8];
    EXPECT_EQ(session_.receive(buffer, sizeof buffer, false, 5), 0);
}

TEST_F(TlsSessionTest, SendingToAClosedPeerFailsWithoutSignal) {
    TlsServer server(pki_.server_cert(), pki_.server_key(), tls(),
                     [](SSL*, int fd) { shutdown(fd, SHUT_RDWR); });
    ASSERT_EQ(start(server, {.server_name = "mx.kemail.test", .verify = false}), 0) << reason_;
    usleep(100000);
    std::string block(256 * 1024, 'x');
    ssize_t sent = 0;
    for (int i = 0; i < 50 && sent >= 0; ++i) sent = session_.send(block.data(), block.size(), 2);
    EXPECT_EQ(sent, -1) << "the process is still alive: SIGPIPE did not kill it";
}

TEST_F(TlsSessionTest, AWaitForDataThatNeverComesTimesOut) {
    TlsServer server(pki_.server_cert(), pki_.server_key(), tls(),
                     [](SSL* ssl, int) { tls_test::read_exactly(ssl, 1); });
    ASSERT_EQ(start(server, {.server_name = "mx.kemail.test", .verify = false}), 0) << reason_;
    char buffer[8];
    EXPECT_EQ(session_.receive(buffer, sizeof buffer, false, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    close(fd_);
    fd_ = -1;
}

TEST_F(TlsSessionTest, AnUnreadableCaFileIsNamed) {
    TlsServer server(pki_.server_cert(), pki_.server_key(), tls(), [](SSL*, int) {});
    EXPECT_EQ(
        start(server,
              {.server_name = "mx.kemail.test", .verify = true, .ca_file = "/nonexistent/ca.pem"}),
        -1);
    EXPECT_STREQ(reason_, "CA file /nonexistent/ca.pem could not be read");
    close(fd_);
    fd_ = -1;
}

}  // namespace
