// The test clock (support/fake_clock.c) seen from a test.
//
// A time-out test creates a FakeClock before it calls the library:
//
//     kemail_test::FakeClock clock;
//     EXPECT_EQ(mail.send(), KEMAIL_E_TIMEOUT);   // a minute, in milliseconds
//
// While the object lives, the library's clocks and waits in this thread run
// on the test clock; the test's own clock reads (std::chrono::steady_clock,
// time()) in this thread see the same time, so "waited at least 60 s" is
// still checked. When the test program runs without the preloaded clock,
// the object does nothing and the test waits for real.
#pragma once

namespace kemail_test {

class FakeClock {
public:
    FakeClock();
    ~FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    // True when the preloaded clock is there and running for this thread.
    bool active() const { return active_; }
    // Milliseconds the clock has run ahead of the real one.
    long long advanced_ms() const;
    // Declares that the peer will not send anything until the library gives
    // up (for peers that are no scripted server, such as a socket pair); a
    // wait on it then ends at once instead of after the grace time.
    void peer_silent();

private:
    bool active_ = false;
    bool silenced_ = false;
};

// Called by the scripted servers around a sleep step: +1 when they fall
// silent, -1 when they go on. Does nothing without the preloaded clock.
void fake_clock_silence(int delta);

}  // namespace kemail_test
