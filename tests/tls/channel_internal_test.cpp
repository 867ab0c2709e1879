// The socket-to-session registry: found by number, freed on release, and
// never handed to another socket that reuses the number.
#include "tls/channel.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

namespace {

using kemail::tls::attach;
using kemail::tls::release;
using kemail::tls::session_for;
using kemail::tls::TlsSession;

struct SocketPair {
    SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0); }
    ~SocketPair() {
        for (int fd : fds)
            if (fd >= 0) close(fd);
    }
    int fds[2] = {-1, -1};
};

TEST(TlsChannel, ASocketInTheClearHasNoSession) {
    SocketPair pair;
    EXPECT_EQ(session_for(pair.fds[0]), nullptr);
    EXPECT_EQ(session_for(-1), nullptr);
}

TEST(TlsChannel, AnAttachedSessionIsFoundUntilReleased) {
    SocketPair pair;
    auto* session = new TlsSession;
    ASSERT_TRUE(attach(pair.fds[0], session));
    EXPECT_EQ(session_for(pair.fds[0]), session);
    EXPECT_EQ(session_for(pair.fds[1]), nullptr);
    release(pair.fds[0]);
    EXPECT_EQ(session_for(pair.fds[0]), nullptr);
    release(pair.fds[0]);  // nothing left: no effect
}

TEST(TlsChannel, AReusedNumberDoesNotInheritTheSession) {
    int first[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, first), 0);
    const int number = first[0];
    ASSERT_TRUE(attach(number, new TlsSession));
    close(first[0]);
    close(first[1]);
    // The lowest free numbers come back for the next sockets.
    SocketPair second;
    ASSERT_TRUE(second.fds[0] == number || second.fds[1] == number);
    EXPECT_EQ(session_for(number), nullptr);
}

TEST(TlsChannel, OnlySocketsTakeASession) {
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    EXPECT_FALSE(attach(pipe_fds[0], new TlsSession));
    EXPECT_EQ(session_for(pipe_fds[0]), nullptr);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

TEST(TlsChannel, AttachingAgainReplacesTheSession) {
    SocketPair pair;
    auto* first = new TlsSession;
    auto* second = new TlsSession;
    ASSERT_TRUE(attach(pair.fds[0], first));
    ASSERT_TRUE(attach(pair.fds[0], second));
    EXPECT_EQ(session_for(pair.fds[0]), second);
    release(pair.fds[0]);
}

TEST(TlsChannel, TheTableIsBounded) {
    SocketPair pairs[5];
    int attached = 0;
    for (auto& pair : pairs)
        for (int fd : pair.fds) attached += attach(fd, new TlsSession) ? 1 : 0;
    EXPECT_EQ(attached, 8);
    for (auto& pair : pairs)
        for (int fd : pair.fds) release(fd);
    EXPECT_TRUE(attach(pairs[0].fds[0], new TlsSession));
    release(pairs[0].fds[0]);
}

}  // namespace
