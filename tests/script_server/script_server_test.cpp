// Self-checks of the scripted test servers, driven by a plain socket client.
#include "support/script_server.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using kemail_test::RefusedPort;
using kemail_test::Script;
using kemail_test::ScriptServer;
using kemail_test::SmtpSink;

// Returns a connected socket or -1 with errno set.
int connect_to(uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

void send_all(int fd, const std::string& bytes) {
    ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

// Reads until `count` bytes arrived or the peer closed (5 s bound per read).
std::string read_some(int fd, size_t count) {
    std::string out;
    char buf[4096];
    while (out.size() < count) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) != 1) break;
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

TEST(ScriptServer, PlaysTheDialogueAndRecordsEveryByte) {
    ScriptServer server(Script()
                            .send("+OK hello\r\n")
                            .read_line()
                            .send(std::string("bin\0ary\xff", 8))
                            .read_until("\r\n.\r\n")
                            .read_line());
    int fd = connect_to(server.port());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_some(fd, 11), "+OK hello\r\n");
    send_all(fd, "bare lf\n");
    EXPECT_EQ(read_some(fd, 8), std::string("bin\0ary\xff", 8));
    // The terminator arrives split over two sends.
    send_all(fd, "body\r\n.");
    ::usleep(50000);
    send_all(fd, "\r\nQUIT\r\n");
    ASSERT_TRUE(server.wait_done());
    EXPECT_FALSE(server.failed()) << server.error();
    EXPECT_EQ(server.received(), "bare lf\nbody\r\n.\r\nQUIT\r\n");
    const auto records = server.records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0], "bare lf\n");
    EXPECT_EQ(records[1], "body\r\n.\r\n");
    EXPECT_EQ(records[2], "QUIT\r\n");
    // The server closes after the last step.
    EXPECT_EQ(read_some(fd, 1), "");
    ::close(fd);
}

TEST(ScriptServer, ServesConnectionsInSequence) {
    ScriptServer server(Script().send("one\r\n").accept().send("two\r\n").read_line());
    int first = connect_to(server.port());
    ASSERT_GE(first, 0);
    EXPECT_EQ(read_some(first, 5), "one\r\n");
    EXPECT_EQ(read_some(first, 1), "");  // closed by accept()
    ::close(first);
    int second = connect_to(server.port());
    ASSERT_GE(second, 0);
    EXPECT_EQ(read_some(second, 5), "two\r\n");
    send_all(second, "x\r\n");
    ASSERT_TRUE(server.wait_done());
    EXPECT_FALSE(server.failed()) << server.error();
    EXPECT_EQ(server.connections(), 2);
    ::close(second);
}

TEST(ScriptServer, ABoundThatRunsOutEndsTheScriptAsFailed) {
    ScriptServer server(Script().bound_ms(200).read_line());
    int fd = connect_to(server.port());
    ASSERT_GE(fd, 0);
    send_all(fd, "no line end");
    ASSERT_TRUE(server.wait_done(5000));
    EXPECT_TRUE(server.failed());
    EXPECT_NE(server.error().find("ran out"), std::string::npos) << server.error();
    EXPECT_EQ(server.received(), "no line end");
    EXPECT_TRUE(server.records().empty());
    ::close(fd);
}

TEST(ScriptServer, APeerThatClosesMidReadFailsTheStep) {
    ScriptServer server(Script().read_line());
    int fd = connect_to(server.port());
    ASSERT_GE(fd, 0);
    send_all(fd, "half");
    ::close(fd);
    ASSERT_TRUE(server.wait_done());
    EXPECT_TRUE(server.failed());
    EXPECT_NE(server.error().find("closed"), std::string::npos) << server.error();
}

TEST(ScriptServer, DestructorInterruptsALongSleep) {
    int fd = -1;
    {
        ScriptServer server(Script().sleep_ms(600000));
        fd = connect_to(server.port());
        ASSERT_GE(fd, 0);
        EXPECT_FALSE(server.wait_done(100));
    }
    // Leaving the scope has stopped the server: the connection is closed.
    EXPECT_EQ(read_some(fd, 1), "");
    ::close(fd);
}

TEST(ScriptServer, ShutdownWriteStillReads) {
    ScriptServer server(Script().send("bye\r\n").shutdown_write().read_line());
    int fd = connect_to(server.port());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_some(fd, 100), "bye\r\n");  // ends at the FIN
    send_all(fd, "after\r\n");
    ASSERT_TRUE(server.wait_done());
    EXPECT_FALSE(server.failed()) << server.error();
    EXPECT_EQ(server.received(), "after\r\n");
    ::close(fd);
}

TEST(RefusedPort, RefusesConnections) {
    RefusedPort refused;
    ASSERT_NE(refused.port(), 0);
    errno = 0;
    EXPECT_EQ(connect_to(refused.port()), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(SmtpSink, AnswersEveryTransactionAndCountsMessages) {
    SmtpSink sink;
    for (int round = 0; round < 2; ++round) {
        int fd = connect_to(sink.port());
        ASSERT_GE(fd, 0);
        EXPECT_EQ(read_some(fd, 16), "220 sink ESMTP\r\n");
        send_all(fd, "EHLO me\r\n");
        EXPECT_EQ(read_some(fd, 24), "250-sink\r\n250 8BITMIME\r\n");
        for (int mail = 0; mail < 2; ++mail) {
            send_all(fd, "MAIL FROM:<a@b>\r\n");
            EXPECT_EQ(read_some(fd, 8), "250 OK\r\n");
            send_all(fd, "DATA\r\n");
            EXPECT_EQ(read_some(fd, 14), "354 go ahead\r\n");
            send_all(fd, "Subject: x\r\n\r\nline\r\n..dot\r\n\r");
            ::usleep(20000);
            send_all(fd, "\n.\r\n");
            EXPECT_EQ(read_some(fd, 8), "250 OK\r\n");
        }
        send_all(fd, "QUIT\r\n");
        EXPECT_EQ(read_some(fd, 100), "221 bye\r\n");
        ::close(fd);
    }
    EXPECT_EQ(sink.messages(), 4u);
    EXPECT_EQ(sink.connections(), 2u);
}

}  // namespace
