// A peer that stops taking data: the send ends as a time-out of its phase
// instead of holding the caller for ever.
#include "dialogue.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

namespace {

using namespace smtp_test;

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class StalledPeer : public ::testing::Test {
protected:
    void SetUp() override {
        set_phase_timeouts(1);
        trace_clear();
    }
    // Far more than the socket pair's buffers hold.
    const std::string message_ = std::string(8 * 1024 * 1024, 'm');
    unsigned int err = 777;
};

TEST_F(StalledPeer, TheStagedMessageEndsAsATimeOut) {
    StagedFile file(message_);
    SocketPair pair;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SMTP_sendData(pair.ours, file.fd, &err), -6);
    const double took = seconds_since(start);
    EXPECT_GE(took, 0.9);
    EXPECT_LT(took, 5.0);
    EXPECT_EQ(err, static_cast<unsigned>(ETIMEDOUT));
    EXPECT_TRUE(traced_in_order({"smtp0500", "smtp0e00", "smtp0510"}));
}

TEST_F(StalledPeer, OneLargeSendEndsAsATimeOut) {
    SocketPair pair;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SMTP_send(pair.ours, message_.data(), static_cast<int>(message_.size()), &err), -6);
    const double took = seconds_since(start);
    EXPECT_GE(took, 0.9);
    EXPECT_LT(took, 5.0);
    EXPECT_EQ(err, static_cast<unsigned>(ETIMEDOUT));
}

TEST_F(StalledPeer, APeerThatReadsSlowlyStillGetsEverything) {
    // Room appears before the phase runs out: the write goes on where it
    // stopped and nothing is lost or repeated.
    SocketPair pair;
    std::string got;
    std::thread reader([&] {
        char buf[65536];
        while (got.size() < message_.size()) {
            const ssize_t n = read(pair.peer, buf, sizeof buf);
            if (n <= 0) break;
            got.append(buf, static_cast<size_t>(n));
        }
    });
    EXPECT_EQ(SMTP_send(pair.ours, message_.data(), static_cast<int>(message_.size()), &err), 0);
    reader.join();
    EXPECT_EQ(got, message_);
}

}  // namespace
