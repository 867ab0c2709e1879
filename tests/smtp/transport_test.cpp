#include "smtp_test_support.h"
#include "support/fake_clock.h"

#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

namespace {

using namespace smtp_test;
using Clock = std::chrono::steady_clock;

constexpr int kSize = KEMAIL_RECV_BUF_SIZE;

// A reply buffer with a guard behind it, to see that nothing is written past
// the size given to the reader.
struct GuardedBuffer {
    GuardedBuffer() { std::memset(bytes, '#', sizeof bytes); }
    char bytes[kSize + 16];
    std::string text() const { return std::string(bytes); }
    bool guard_intact() const { return std::string(bytes + kSize, 16) == std::string(16, '#'); }
};

std::string waiting_bytes(int fd) {
    std::string bytes;
    char buf[4096];
    for (;;) {
        const ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n <= 0) break;
        bytes.append(buf, static_cast<size_t>(n));
    }
    return bytes;
}

class Transport : public ::testing::Test {
protected:
    void SetUp() override {
        set_phase_timeouts(5);
        trace_clear();
    }
    SocketPair pair;
    GuardedBuffer buffer;
    unsigned int err = 12345;
};

TEST_F(Transport, MultiLineReplyLeavesItsLastLine) {
    pair.peer_send("250-first\r\n250-second\r\n250 last\r\n");
    EXPECT_EQ(SMTP_returnMessage(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_EQ(buffer.text(), "250 last\r\n");
    EXPECT_EQ(err, 0u);
    EXPECT_TRUE(buffer.guard_intact());
}

TEST_F(Transport, ALineShorterThanFourCharactersEndsTheReply) {
    pair.peer_send("25\r\n250 next\r\n");
    EXPECT_EQ(SMTP_returnMessage(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_EQ(buffer.text(), "25\r\n");
    EXPECT_EQ(SMTP_returnMessage(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_EQ(buffer.text(), "250 next\r\n");
}

TEST_F(Transport, AFullLineWithoutCrLfFillsTheBufferWithoutNul) {
    pair.peer_send(std::string(kSize, 'x') + "yz\r\n");
    EXPECT_EQ(SMTP_recv(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_EQ(std::string(buffer.bytes, kSize), std::string(kSize, 'x'));
    EXPECT_TRUE(buffer.guard_intact()) << "no NUL written past the buffer";
    EXPECT_EQ(err, 0u);
    // The rest of the line comes as the next line.
    EXPECT_EQ(SMTP_recv(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_EQ(std::string(buffer.bytes, 5), std::string("yz\r\n\0", 5));
}

TEST_F(Transport, AFullLineEndsAReplyUnlessItsFourthCharacterIsAHyphen) {
    pair.peer_send(std::string(kSize, 'x') + "250 rest\r\n");
    EXPECT_EQ(SMTP_returnMessage(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_TRUE(buffer.guard_intact());
    pair.peer_send("250-" + std::string(kSize, 'y') + "250 end\r\n");
    // "250 rest" is still waiting: it is read first.
    EXPECT_EQ(SMTP_returnMessage(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_EQ(buffer.text(), "250 rest\r\n");
    // The first 1028 bytes continue the reply; the line's rest is a line of
    // its own, and its fourth byte is no hyphen.
    EXPECT_EQ(SMTP_returnMessage(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_EQ(buffer.text(), "yyyy250 end\r\n");
}

TEST_F(Transport, NothingAfterTheLinesCrLfIsConsumed) {
    pair.peer_send("250-a\r\n250 b\r\n354 next reply\r\nDATA");
    EXPECT_EQ(SMTP_returnMessage(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_EQ(buffer.text(), "250 b\r\n");
    EXPECT_EQ(waiting_bytes(pair.ours), "354 next reply\r\nDATA");
}

TEST_F(Transport, ACrLfSplitAcrossTwoArrivalsEndsTheLine) {
    std::thread peer([&] {
        pair.peer_send("250 ok\r");
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        pair.peer_send("\n250 more\r\n");
    });
    EXPECT_EQ(SMTP_recv(pair.ours, buffer.bytes, kSize, &err), 0);
    peer.join();
    EXPECT_EQ(buffer.text(), "250 ok\r\n");
    EXPECT_EQ(waiting_bytes(pair.ours), "250 more\r\n");
}

TEST_F(Transport, ALoneLfOrCrDoesNotEndTheLine) {
    pair.peer_send("250 a\nb\rc\r\n");
    EXPECT_EQ(SMTP_recv(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_EQ(buffer.text(), "250 a\nb\rc\r\n");
}

TEST_F(Transport, BinaryBytesArePassedThrough) {
    const std::string line("250 \0\xff\x01\x80\r\n", 10);
    pair.peer_send(line);
    EXPECT_EQ(SMTP_recv(pair.ours, buffer.bytes, kSize, &err), 0);
    EXPECT_EQ(std::string(buffer.bytes, line.size()), line);
    EXPECT_EQ(buffer.bytes[line.size()], '\0');
}

TEST_F(Transport, ThousandsOfContinuationLinesAreConsumedWhole) {
    std::string reply;
    for (int i = 0; i < 5000; ++i) reply += "250-line " + std::to_string(i) + "\r\n";
    reply += "250 end\r\n";
    std::thread peer([&] { pair.peer_send(reply); });
    EXPECT_EQ(SMTP_returnMessage(pair.ours, buffer.bytes, kSize, &err), 0);
    peer.join();
    EXPECT_EQ(buffer.text(), "250 end\r\n");
    EXPECT_EQ(waiting_bytes(pair.ours), "");
}

TEST_F(Transport, SixZeroLengthReadsMeanThePeerClosed) {
    pair.peer_send("250 partial line");
    pair.close_peer();
    EXPECT_EQ(SMTP_recv(pair.ours, buffer.bytes, kSize, &err), -4);
    EXPECT_EQ(trace_count("smtp0f20"), 5);
    EXPECT_EQ(trace_count("smtp0f10"), 1);
    EXPECT_EQ(trace_find("smtp0f10").level, 0u);
    EXPECT_EQ(trace_find("smtp0f20").level, 2u);
    // The reply reader passes the failure on with its own trace.
    trace_clear();
    EXPECT_EQ(SMTP_returnMessage(pair.ours, buffer.bytes, kSize, &err), -4);
    EXPECT_TRUE(traced_in_order({"smtp0f10", "smtp0d05"}));
}

TEST_F(Transport, AReplyThatNeverComesEndsAfterThePhaseTimeOut) {
    kemail_test::FakeClock clock;
    clock.peer_silent();
    SMTP_SetTimeOut(1);
    SMTP_SetStartTime();
    const auto start = Clock::now();
    EXPECT_EQ(SMTP_returnMessage(pair.ours, buffer.bytes, kSize, &err), -6);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(900));
    EXPECT_EQ(trace_find("smtp0f03").level, 0u);
    EXPECT_EQ(trace_find("smtp0f03").data.size(), 4u);
    EXPECT_TRUE(traced_in_order({"smtp0f03", "smtp0d05"}));
}

TEST_F(Transport, AnExhaustedPhasePollsOnceAndTimesOut) {
    SMTP_SetTimeOut(0);
    SMTP_SetStartTime();
    select_spy_start();
    EXPECT_EQ(SMTP_recv(pair.ours, buffer.bytes, kSize, &err), -6);
    const auto waits = select_spy_stop();
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_EQ(waits[0].tv_sec, 0);
    EXPECT_EQ(waits[0].tv_usec, 0);
}

std::atomic<int> g_signals{0};
void count_signal(int) { ++g_signals; }

TEST_F(Transport, ASignalDuringSelectRetriesWithASmallerTimeOut) {
    struct sigaction action = {};
    struct sigaction previous = {};
    action.sa_handler = count_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: select returns EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    g_signals = 0;

    SMTP_SetTimeOut(3);
    SMTP_SetStartTime();
    const pthread_t reader = pthread_self();
    std::thread interrupter([reader] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        pthread_kill(reader, SIGUSR1);
    });
    select_spy_start();
    const int result = SMTP_recv(pair.ours, buffer.bytes, kSize, &err);
    const auto waits = select_spy_stop();
    interrupter.join();
    sigaction(SIGUSR1, &previous, nullptr);

    EXPECT_EQ(result, -6);
    EXPECT_EQ(g_signals.load(), 1);
    EXPECT_EQ(trace_count("smtp0f01"), 1);
    EXPECT_EQ(word_of(trace_find("smtp0f01")), static_cast<uint32_t>(EINTR));
    ASSERT_EQ(waits.size(), 2u);
    EXPECT_EQ(waits[0].tv_sec, 3);
    EXPECT_LT(waits[1].tv_sec, waits[0].tv_sec);
}

TEST_F(Transport, ABadDescriptorFailsTheRead) {
    EXPECT_EQ(SMTP_recv(-1, buffer.bytes, kSize, &err), -4);
    EXPECT_EQ(err, static_cast<unsigned>(EBADF));
    EXPECT_EQ(trace_find("smtp0f02").level, 0u);
}

TEST_F(Transport, SendWritesEveryByteAndTracesThem) {
    EXPECT_EQ(SMTP_send(pair.ours, "NOOP\r\n", 6, &err), 0);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(pair.peer_read_available(), "NOOP\r\n");
    const TraceEvent sent = trace_find("smtp0e00");
    EXPECT_EQ(sent.level, 0u);
    EXPECT_EQ(sent.data, "NOOP\r\n");
}

TEST_F(Transport, ASendOfNoBytesFailsAsZeroLengthSends) {
    EXPECT_EQ(SMTP_send(pair.ours, "NOOP\r\n", 0, &err), -3);
    EXPECT_EQ(trace_count("smtp0e10"), 1);
    EXPECT_EQ(trace_count("CHKOVER0000"), 6) << "every zero-length send looks at the clock";
    EXPECT_EQ(pair.peer_read_available(), "");
}

TEST_F(Transport, ALargeSendGoesOutWholeInPieces) {
    std::string data(8 << 20, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 31);
    std::string got;
    std::thread reader([&] {
        char buf[65536];
        while (got.size() < data.size()) {
            const ssize_t n = recv(pair.peer, buf, sizeof buf, 0);
            if (n <= 0) break;
            got.append(buf, static_cast<size_t>(n));
        }
    });
    EXPECT_EQ(SMTP_send(pair.ours, data.data(), static_cast<int>(data.size()), &err), 0);
    reader.join();
    EXPECT_TRUE(got == data);
}

TEST_F(Transport, SendingToAClosedPeerFailsWithoutASignal) {
    pair.close_peer();
    EXPECT_EQ(SMTP_send(pair.ours, "QUIT\r\n", 6, &err), -3);
    EXPECT_EQ(err, static_cast<unsigned>(EPIPE));
    EXPECT_EQ(word_of(trace_find("smtp0e05")), static_cast<uint32_t>(EPIPE));
}

TEST_F(Transport, ServerReplyIsHandedOutCutTo255Characters) {
    pair.peer_send("250 " + std::string(600, 'r') + "\r\n");
    EXPECT_EQ(SMTP_RSET(pair.ours, &err), 0);
    const std::string reply = last_reply();
    EXPECT_EQ(reply, "250 " + std::string(251, 'r'));
    EXPECT_TRUE(traced_in_order({"GETSMTP0000", "GETSMTPFFFF"}));
}

}  // namespace
