// Reading ahead on a socket in the clear: replies that arrive together are
// taken in one read and served line by line, in order, with nothing lost.
#include "net/net.h"
#include "net/stream.h"

#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

namespace net = kemail::net;

// A connected pair of stream sockets, closed at the end.
struct Pair {
    Pair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0); }
    ~Pair() {
        for (int fd : fds) {
            if (fd >= 0) ::close(fd);
        }
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    void peer_send(const std::string& bytes) const {
        ASSERT_EQ(::send(fds[1], bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Bytes still waiting in the socket, not yet taken by anyone.
    int in_socket() const {
        int n = -1;
        EXPECT_EQ(::ioctl(fds[0], FIONREAD, &n), 0);
        return n;
    }
    void close_peer() {
        ::close(fds[1]);
        fds[1] = -1;
    }
    int ours() const { return fds[0]; }
    int fds[2] = {-1, -1};
};

class FixedWait final : public net::LineWait {
public:
    void compute(struct timeval* wait) override {
        wait->tv_sec = 2;
        wait->tv_usec = 0;
    }
    void retrying(net::Retry, int) override { ++retries; }
    int retries = 0;
};

struct Line {
    net::LineStatus status;
    std::string text;
};

Line read_line(int sock, size_t capacity = KEMAIL_RECV_BUF_SIZE) {
    FixedWait wait;
    std::string buf(capacity, '\0');
    const net::LineRead read = net::read_line(sock, buf.data(), capacity, net::LineEnd::CrLf, wait);
    return {read.status, buf.substr(0, read.count)};
}

TEST(ReadAhead, RepliesThatArriveTogetherAreTakenInOneReadAndServedInOrder) {
    Pair pair;
    net::ReadAhead ahead;
    ahead.start(pair.ours());
    pair.peer_send("250 OK\r\n250-two\r\n250 lines\r\n354 go ahead\r\n");

    const Line first = read_line(pair.ours());
    EXPECT_EQ(first.status, net::LineStatus::Done);
    EXPECT_EQ(first.text, "250 OK\r\n");
    // Everything that had arrived was taken with the first line.
    EXPECT_EQ(pair.in_socket(), 0);
    EXPECT_EQ(ahead.waiting(), std::string("250-two\r\n250 lines\r\n354 go ahead\r\n").size());
    EXPECT_TRUE(net::stream_buffered(pair.ours()));

    // The rest comes from memory, even after the peer has gone.
    pair.close_peer();
    EXPECT_EQ(read_line(pair.ours()).text, "250-two\r\n");
    EXPECT_EQ(read_line(pair.ours()).text, "250 lines\r\n");
    EXPECT_EQ(read_line(pair.ours()).text, "354 go ahead\r\n");
    EXPECT_FALSE(net::stream_buffered(pair.ours()));
    EXPECT_EQ(read_line(pair.ours()).status, net::LineStatus::PeerClosed);
}

TEST(ReadAhead, WithoutItTheRestStaysInTheSocket) {
    Pair pair;
    pair.peer_send("250 OK\r\n354 go ahead\r\n");
    EXPECT_EQ(read_line(pair.ours()).text, "250 OK\r\n");
    EXPECT_EQ(pair.in_socket(), 14);
    EXPECT_FALSE(net::stream_buffered(pair.ours()));
}

TEST(ReadAhead, AnotherSocketAndAStoppedOneAreReadAsDesigned) {
    Pair pair;
    Pair other;
    net::ReadAhead ahead;
    ahead.start(other.ours());
    pair.peer_send("250 OK\r\n354 go ahead\r\n");
    EXPECT_EQ(read_line(pair.ours()).text, "250 OK\r\n");
    EXPECT_EQ(pair.in_socket(), 14);

    ahead.start(pair.ours());
    ahead.stop();
    EXPECT_EQ(net::ReadAhead::on(pair.ours()), nullptr);
    EXPECT_EQ(read_line(pair.ours()).text, "354 go ahead\r\n");
}

TEST(ReadAhead, BelongsToTheThreadThatStartedIt) {
    Pair pair;
    net::ReadAhead ahead;
    ahead.start(pair.ours());
    EXPECT_EQ(net::ReadAhead::on(pair.ours()), &ahead);
    const net::ReadAhead* seen_elsewhere = &ahead;
    std::thread([&] { seen_elsewhere = net::ReadAhead::on(pair.ours()); }).join();
    EXPECT_EQ(seen_elsewhere, nullptr);
}

TEST(ReadAhead, ALineCutAcrossArrivalsIsJoined) {
    Pair pair;
    net::ReadAhead ahead;
    ahead.start(pair.ours());
    pair.peer_send("250 O");
    std::thread late([&] {
        ::usleep(50 * 1000);
        pair.peer_send("K\r");
        ::usleep(50 * 1000);
        pair.peer_send("\n221 bye\r\n");
    });
    const Line line = read_line(pair.ours());
    late.join();
    EXPECT_EQ(line.status, net::LineStatus::Done);
    EXPECT_EQ(line.text, "250 OK\r\n");
    EXPECT_EQ(read_line(pair.ours()).text, "221 bye\r\n");
}

TEST(ReadAhead, LinesLongerThanWhatOneReadTakesComeWhole) {
    Pair pair;
    net::ReadAhead ahead;
    ahead.start(pair.ours());
    const std::string long_line = "250-" + std::string(9000, 'x') + "\r\n";
    std::thread writer([&] { pair.peer_send(long_line + "250 end\r\n"); });
    const Line line = read_line(pair.ours(), long_line.size() + 16);
    writer.join();
    EXPECT_EQ(line.text, long_line);
    EXPECT_EQ(read_line(pair.ours()).text, "250 end\r\n");
}

TEST(ReadAhead, AFullBufferEndsTheLineAndTheRestFollows) {
    Pair pair;
    net::ReadAhead ahead;
    ahead.start(pair.ours());
    pair.peer_send("250 " + std::string(20, 'y') + "\r\n354 next\r\n");
    const Line cut = read_line(pair.ours(), 10);
    EXPECT_EQ(cut.text, "250 yyyyyy");
    EXPECT_EQ(read_line(pair.ours()).text, std::string(14, 'y') + "\r\n");
    EXPECT_EQ(read_line(pair.ours()).text, "354 next\r\n");
}

TEST(ReadAhead, WhatIsTakenAheadIsTheStreamsNextBytes) {
    Pair pair;
    net::ReadAhead ahead;
    ahead.start(pair.ours());
    pair.peer_send("250 OK\r\nrest of it");
    EXPECT_EQ(read_line(pair.ours()).text, "250 OK\r\n");
    char buf[32] = {};
    EXPECT_EQ(net::stream_peek(pair.ours(), buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "rest");
    EXPECT_EQ(net::stream_recv(pair.ours(), buf, sizeof buf), 10);
    EXPECT_EQ(std::string(buf, 10), "rest of it");
    EXPECT_FALSE(net::stream_buffered(pair.ours()));
}

}  // namespace
