// The POP3 client's internal helpers: line reading, reply classes, the wait
// computation and address resolution.
#include "pop3/pop3_internal.h"
#include "pop3/pop3_test_support.h"
#include "support/script_server.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <string>

namespace {

using kemail::kPop3LineSize;
using kemail_test::Script;
using kemail_test::ScriptServer;
using pop3_test::count_of;
using pop3_test::TraceCapture;

class Pop3Io : public ::testing::Test {
protected:
    void SetUp() override { Pop3_SetTimeOut(5, nullptr); }
    void TearDown() override {
        if (sock_ >= 0) ::close(sock_);
        Pop3_SetTimeOut(60, nullptr);
    }
    void connect(const ScriptServer& server) {
        sock_ = Pop3_Connect("127.0.0.1", server.port(), &err_, nullptr);
        ASSERT_GE(sock_, 0);
    }
    int sock_ = -1;
    int err_ = -99;
    char line_[kPop3LineSize];
};

TEST_F(Pop3Io, ALongLineComesIn1027BytePieces) {
    const std::string long_line = std::string(2000, 'x') + "\r\n";
    ScriptServer server(Script().send(long_line).send("next\n"));
    connect(server);
    ASSERT_EQ(kemail::Pop3_RecvLine(sock_, line_, sizeof line_, &err_, nullptr), 1027);
    EXPECT_EQ(std::string(line_), std::string(1027, 'x'));
    ASSERT_EQ(kemail::Pop3_RecvLine(sock_, line_, sizeof line_, &err_, nullptr), 975);
    EXPECT_EQ(std::string(line_), std::string(973, 'x') + "\r\n");
    // Nothing after the LF was consumed.
    ASSERT_EQ(kemail::Pop3_RecvLine(sock_, line_, sizeof line_, &err_, nullptr), 5);
    EXPECT_STREQ(line_, "next\n");
    EXPECT_EQ(err_, 0);
}

TEST_F(Pop3Io, ThousandsOfLinesAreReadOneByOne) {
    std::string lines;
    for (int i = 0; i < 3000; ++i) lines += "+OK line " + std::to_string(i) + "\r\n";
    ScriptServer server(Script().send(lines));
    connect(server);
    for (int i = 0; i < 3000; ++i) {
        const std::string want = "+OK line " + std::to_string(i) + "\r\n";
        ASSERT_EQ(kemail::Pop3_RecvReply(sock_, line_, sizeof line_, &err_, nullptr), 1);
        ASSERT_EQ(std::string(line_), want);
    }
}

TEST_F(Pop3Io, ALineCountsItsNulBytes) {
    const std::string bytes("+OK\0\0\n", 6);
    ScriptServer server(Script().send(bytes));
    connect(server);
    ASSERT_EQ(kemail::Pop3_RecvLine(sock_, line_, sizeof line_, &err_, nullptr), 6);
    EXPECT_EQ(std::string(line_, 6), bytes);
    EXPECT_EQ(line_[6], '\0');
}

TEST_F(Pop3Io, OnlyMoreThanThreeBytesStartingWithPlusOkArePositive) {
    // With a 4-byte buffer a line stops after 3 bytes: "+OK" alone is never
    // positive; "+OK\n" is.
    ScriptServer server(Script().send("+OK\r\n+OK\n+OK"));
    connect(server);
    char small[4];
    EXPECT_EQ(kemail::Pop3_RecvReply(sock_, small, sizeof small, &err_, nullptr), 2);
    EXPECT_STREQ(small, "+OK");
    EXPECT_EQ(kemail::Pop3_RecvReply(sock_, line_, sizeof line_, &err_, nullptr), 2);
    EXPECT_STREQ(line_, "\r\n");
    EXPECT_EQ(kemail::Pop3_RecvReply(sock_, line_, sizeof line_, &err_, nullptr), 1);
    EXPECT_STREQ(line_, "+OK\n");
    // "+OK" and then the end of the connection: no line at all.
    EXPECT_EQ(kemail::Pop3_RecvReply(sock_, line_, sizeof line_, &err_, nullptr), -1);
}

TEST_F(Pop3Io, AResetConnectionGivesItsErrno) {
    ScriptServer server(Script().send("+OK par").reset());
    connect(server);
    ASSERT_TRUE(server.wait_done());
    TraceCapture trace("reset");
    EXPECT_EQ(kemail::Pop3_RecvLine(sock_, line_, sizeof line_, &err_, trace.handle()), -1);
    EXPECT_EQ(err_, ECONNRESET);
    const auto codes = trace.codes();
    EXPECT_EQ(count_of(codes, "Pop3_0c120"), 1);
}

TEST_F(Pop3Io, ABadDescriptorFailsLikeSelect) {
    TraceCapture trace("bad_fd");
    EXPECT_EQ(kemail::Pop3_RecvLine(-1, line_, sizeof line_, &err_, trace.handle()), -1);
    EXPECT_EQ(err_, EBADF);
    EXPECT_EQ(kemail::Pop3_RecvLine(FD_SETSIZE, line_, sizeof line_, &err_, nullptr), -1);
    EXPECT_EQ(err_, EBADF);
    const auto codes = trace.codes();
    EXPECT_EQ(count_of(codes, "Pop3_0c10"), 1);
    EXPECT_EQ(count_of(codes, "Pop3_0c30"), 1);
}

TEST(Pop3SetWait, TheRemainingTimeIsWaited) {
    time_t start = ::time(nullptr);
    struct timeval wait = {99, 99};
    kemail::Pop3_SetWait(&wait, &start, 30, nullptr);
    EXPECT_GE(wait.tv_sec, 29);
    EXPECT_LE(wait.tv_sec, 30);
    EXPECT_EQ(wait.tv_usec, 0);
}

TEST(Pop3SetWait, UsedUpTimeGivesAZeroWait) {
    time_t start = ::time(nullptr) - 100;
    const time_t before = start;
    struct timeval wait = {99, 99};
    TraceCapture trace("wait_used_up");
    kemail::Pop3_SetWait(&wait, &start, 30, trace.handle());
    EXPECT_EQ(wait.tv_sec, 0);
    EXPECT_EQ(wait.tv_usec, 0);
    EXPECT_EQ(start, before);
    const auto codes = trace.codes();
    EXPECT_EQ(codes, (std::vector<std::string>{"PGTSTO0000", "PGTSTO0010", "PGTSTO0020"}));
}

TEST(Pop3SetWait, AClockThatWentBackRestartsTheWait) {
    time_t start = ::time(nullptr) + 1000;
    struct timeval wait = {99, 99};
    TraceCapture trace("wait_clock_back");
    kemail::Pop3_SetWait(&wait, &start, 30, trace.handle());
    EXPECT_LE(start, ::time(nullptr));
    EXPECT_GE(wait.tv_sec, 29);
    const auto codes = trace.codes();
    EXPECT_EQ(codes, (std::vector<std::string>{"PGTSTO0000", "PGTSTO0005", "PGTSTOFFFF"}));
}

TEST(Pop3GetAddress, DottedAddressesAndNames) {
    int err = -1;
    EXPECT_EQ(kemail::Pop3_GetAddress("127.0.0.1", &err, nullptr), htonl(0x7f000001));
    EXPECT_EQ(err, 0);
    EXPECT_EQ(kemail::Pop3_GetAddress("localhost", &err, nullptr), htonl(0x7f000001));
    EXPECT_EQ(err, 0);
    EXPECT_EQ(kemail::Pop3_GetAddress("no-such-host.kemail-test.invalid", &err, nullptr),
              INADDR_NONE);
    EXPECT_NE(err, 0);
}

}  // namespace
