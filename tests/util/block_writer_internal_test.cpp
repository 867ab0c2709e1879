// The block writer: pieces reach the file in one write per block, in order;
// a failed write names the first piece that did not arrive, with its errno,
// and nothing is written after it.
#include "util/block_writer.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A packet socket pair: every write arrives as one packet, so the packets
// read show how the bytes were written.
class Packets {
public:
    Packets() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds_), 0); }
    ~Packets() {
        ::close(fds_[0]);
        ::close(fds_[1]);
    }
    int writer() const { return fds_[0]; }
    std::vector<std::string> read_all() {
        std::vector<std::string> packets;
        char buffer[65536];
        for (;;) {
            const ssize_t n = ::recv(fds_[1], buffer, sizeof buffer, MSG_DONTWAIT);
            if (n <= 0) break;
            packets.emplace_back(buffer, static_cast<size_t>(n));
        }
        return packets;
    }

private:
    int fds_[2] = {-1, -1};
};

// Limits the size of files this process writes; a write beyond fails with
// EFBIG (the signal it would raise is ignored meanwhile).
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        old_handler_ = std::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &old_);
        struct rlimit limit = old_;
        limit.rlim_cur = bytes;
        EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, old_handler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    struct rlimit old_ = {};
    void (*old_handler_)(int) = nullptr;
};

using Writer = kemail::BlockWriter<const char*, 64, 4>;

TEST(BlockWriter, PiecesGoOutTogetherInOneWrite) {
    Packets packets;
    unsigned int error = 99;
    Writer writer(packets.writer(), &error);
    EXPECT_TRUE(writer.put("Date: x\r\n", 9, "date"));
    EXPECT_TRUE(writer.put("", 0, "nothing"));
    EXPECT_TRUE(writer.put("From: y\r\n", 9, "from"));
    EXPECT_TRUE(packets.read_all().empty());  // nothing written before the flush
    EXPECT_TRUE(writer.flush());
    EXPECT_EQ(packets.read_all(), std::vector<std::string>{"Date: x\r\nFrom: y\r\n"});
    EXPECT_TRUE(writer.flush());  // nothing queued: no write
    EXPECT_TRUE(packets.read_all().empty());
    EXPECT_EQ(error, 99u);
}

TEST(BlockWriter, FullBufferOrPieceCountStartsANewBlock) {
    Packets packets;
    Writer writer(packets.writer(), nullptr);
    const std::string forty(40, 'a');
    const std::string thirty(30, 'b');
    EXPECT_TRUE(writer.put(forty.data(), forty.size(), "1"));
    EXPECT_TRUE(writer.put(thirty.data(), thirty.size(), "2"));  // 70 > 64: the 40 go first
    EXPECT_TRUE(writer.flush());
    EXPECT_EQ(packets.read_all(), (std::vector<std::string>{forty, thirty}));

    for (const char* piece : {"a", "b", "c", "d", "e"}) EXPECT_TRUE(writer.put(piece, 1, piece));
    EXPECT_TRUE(writer.flush());
    EXPECT_EQ(packets.read_all(), (std::vector<std::string>{"abcd", "e"}));
}

TEST(BlockWriter, PieceLargerThanTheBufferGoesOutWithTheQueueInOneWrite) {
    Packets packets;
    Writer writer(packets.writer(), nullptr);
    const std::string big(200, 'z');
    EXPECT_TRUE(writer.put("head\r\n", 6, "head"));
    EXPECT_TRUE(writer.put(big.data(), big.size(), "big"));
    EXPECT_TRUE(writer.put("tail\r\n", 6, "tail"));
    EXPECT_TRUE(writer.flush());
    EXPECT_EQ(packets.read_all(), (std::vector<std::string>{"head\r\n" + big, "tail\r\n"}));
}

// The file may hold 20 bytes: the third piece is the first that cannot
// arrive whole, and the bytes before the limit are there, as piece-by-piece
// writes would have left them.
TEST(BlockWriter, FailedWriteNamesTheFirstPieceThatDidNotArrive) {
    kemail_test::TempDir dir;
    const std::string path = dir.file("message");
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    unsigned int error = 0;
    {
        Writer writer(fd, &error);
        FileSizeLimit limit(20);
        EXPECT_TRUE(writer.put("0123456789", 10, "first"));
        EXPECT_TRUE(writer.put("abcde", 5, "second"));
        EXPECT_TRUE(writer.put("ABCDEFGHIJ", 10, "third"));
        EXPECT_TRUE(writer.put("last", 4, "fourth"));
        EXPECT_FALSE(writer.flush());
        EXPECT_TRUE(writer.failed());
        EXPECT_STREQ(writer.failed_tag(), "third");
        EXPECT_EQ(error, static_cast<unsigned int>(EFBIG));
        // Nothing more is written once a write has failed.
        EXPECT_FALSE(writer.put("x", 1, "later"));
        EXPECT_FALSE(writer.flush());
        EXPECT_STREQ(writer.failed_tag(), "third");
    }
    ::close(fd);
    EXPECT_EQ(kemail_test::read_file(path), "0123456789abcdeABCDE");
}

TEST(BlockWriter, FailureInALargePieceNamesIt) {
    kemail_test::TempDir dir;
    const std::string path = dir.file("message");
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    unsigned int error = 0;
    const std::string big(300, 'z');
    {
        Writer writer(fd, &error);
        FileSizeLimit limit(100);
        EXPECT_TRUE(writer.put("head", 4, "head"));
        EXPECT_FALSE(writer.put(big.data(), big.size(), "big"));
        EXPECT_STREQ(writer.failed_tag(), "big");
        EXPECT_EQ(error, static_cast<unsigned int>(EFBIG));
    }
    ::close(fd);
    EXPECT_EQ(kemail_test::read_file(path), "head" + big.substr(0, 96));
}

TEST(BlockWriter, FailureOfTheFirstWriteNamesTheFirstPiece) {
    unsigned int error = 0;
    Writer writer(-1, &error);
    EXPECT_TRUE(writer.put("one", 3, "one"));
    EXPECT_TRUE(writer.put("two", 3, "two"));
    EXPECT_FALSE(writer.flush());
    EXPECT_STREQ(writer.failed_tag(), "one");
    EXPECT_EQ(error, static_cast<unsigned int>(EBADF));
}

}  // namespace
