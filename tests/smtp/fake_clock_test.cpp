// The test clock that the time-out tests rely on (support/fake_clock.c): it
// must be preloaded, turn a silent minute into milliseconds, and still let a
// reply that is on its way arrive.
#include "smtp_test_support.h"
#include "support/fake_clock.h"

#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

using namespace smtp_test;

// Real milliseconds, from a clock the test clock leaves alone.
long long raw_ms() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

TEST(FakeClock, IsPreloadedIntoTheTestPrograms) {
    kemail_test::FakeClock clock;
    EXPECT_TRUE(clock.active())
        << "run through ctest: the test clock is preloaded by private-root.sh";
}

TEST(FakeClock, ASilentMinuteTakesNoRealTime) {
    kemail_test::FakeClock clock;
    ASSERT_TRUE(clock.active());
    clock.peer_silent();
    SocketPair pair;
    SMTP_SetTimeOut(60);
    SMTP_SetStartTime();
    const auto seen_start = std::chrono::steady_clock::now();
    const long long real_start = raw_ms();
    char buf[KEMAIL_RECV_BUF_SIZE];
    unsigned int err = 0;
    EXPECT_EQ(SMTP_recv(pair.ours, buf, sizeof buf, &err), -6);
    EXPECT_LT(raw_ms() - real_start, 5000);
    EXPECT_GE(std::chrono::steady_clock::now() - seen_start, std::chrono::seconds(59));
    EXPECT_GE(clock.advanced_ms(), 59000);
}

TEST(FakeClock, AReplyOnItsWayIsStillRead) {
    kemail_test::FakeClock clock;
    ASSERT_TRUE(clock.active());
    SocketPair pair;
    SMTP_SetTimeOut(60);
    SMTP_SetStartTime();
    std::thread peer([&pair] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        pair.peer_send("250 late but here\r\n");
    });
    char buf[KEMAIL_RECV_BUF_SIZE] = {};
    unsigned int err = 0;
    EXPECT_EQ(SMTP_recv(pair.ours, buf, sizeof buf, &err), 0);
    peer.join();
    EXPECT_EQ(std::string(buf), "250 late but here\r\n");
    EXPECT_EQ(clock.advanced_ms(), 0);
}

TEST(FakeClock, SleepsAdvanceTheClockAndOtherThreadsKeepTheRealTime) {
    kemail_test::FakeClock clock;
    ASSERT_TRUE(clock.active());
    const time_t before = time(nullptr);
    const long long real_start = raw_ms();
    EXPECT_EQ(sleep(30), 0u);
    EXPECT_LT(raw_ms() - real_start, 5000);
    EXPECT_GE(time(nullptr) - before, 30);
    time_t elsewhere = 0;
    std::thread other([&elsewhere] { elsewhere = time(nullptr); });
    other.join();
    EXPECT_LT(elsewhere - before, 5);
}

}  // namespace
