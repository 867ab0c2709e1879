// Short writes over a TLS session are gathered and leave with the next
// receive or flush; a write that failed fails every call after it.
#include "tls/test_pki.h"
#include "tls/tls_server.h"
#include "tls/tls_session.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

using kemail::tls::TlsSession;
using tls_test::TestPki;
using tls_test::TlsServer;

TEST(TlsGather, GatheredWritesLeaveWithTheReceiveThatWaitsForTheAnswer) {
    TestPki pki;
    ASSERT_TRUE(pki.ok());
    const std::string commands = "MAIL FROM:<a@example.test>\r\nRCPT TO:<b@example.test>\r\n";
    std::string received;
    // The server answers only once it has both commands.
    TlsServer server(pki.server_cert(), pki.server_key(), TlsServer::Mode::Tls, [&](SSL* ssl, int) {
        received = tls_test::read_exactly(ssl, commands.size());
        SSL_write(ssl, "250 ok\r\n", 8);
    });
    const int fd = server.connect_client();
    ASSERT_GE(fd, 0);
    TlsSession session;
    char reason[256] = "";
    ASSERT_EQ(session.start(fd, {.server_name = "mx.kemail.test", .verify = false}, 5, reason,
                            sizeof reason),
              0)
        << reason;
    const size_t half = 28;
    EXPECT_EQ(session.send(commands.data(), half, 5), static_cast<ssize_t>(half));
    EXPECT_EQ(session.send(commands.data() + half, commands.size() - half, 5),
              static_cast<ssize_t>(commands.size() - half));
    EXPECT_TRUE(session.has_output());
    char reply[16] = {};
    ASSERT_EQ(session.receive(reply, sizeof reply, false, 5), 8);
    EXPECT_EQ(std::string(reply, 8), "250 ok\r\n");
    EXPECT_FALSE(session.has_output());
    EXPECT_EQ(received, commands);
    session.finish();
    close(fd);
}

TEST(TlsGather, AFailedWriteFailsEverySendAndReceiveAfterIt) {
    TestPki pki;
    ASSERT_TRUE(pki.ok());
    TlsServer server(pki.server_cert(), pki.server_key(), TlsServer::Mode::Tls,
                     [](SSL*, int fd) { shutdown(fd, SHUT_RDWR); });
    const int fd = server.connect_client();
    ASSERT_GE(fd, 0);
    TlsSession session;
    char reason[256] = "";
    ASSERT_EQ(session.start(fd, {.server_name = "mx.kemail.test", .verify = false}, 5, reason,
                            sizeof reason),
              0)
        << reason;
    usleep(100000);
    const std::string piece(1000, 'x');
    int failed_at = -1;
    for (int i = 0; i < 2000 && failed_at < 0; ++i) {
        if (session.send(piece.data(), piece.size(), 2) < 0 ||
            (i % 20 == 19 && session.flush(2) != 0))
            failed_at = i;
    }
    ASSERT_GE(failed_at, 0) << "writes to a closed peer never failed";
    const int error = errno;
    EXPECT_NE(error, 0);
    errno = 0;
    EXPECT_EQ(session.send("QUIT\r\n", 6, 2), -1);
    EXPECT_EQ(errno, error);
    char scratch[8];
    errno = 0;
    EXPECT_EQ(session.receive(scratch, sizeof scratch, false, 2), -1);
    EXPECT_EQ(errno, error);
    close(fd);
}

}  // namespace
