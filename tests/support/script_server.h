// Scripted TCP peers for protocol tests, in the spirit of curl's test servers.
//
// ScriptServer listens on 127.0.0.1 on an ephemeral port and, in a thread of
// its own, plays one dialogue that the test writes as a list of steps:
//
//     kemail_test::ScriptServer server(kemail_test::Script()
//                                          .send("+OK ready\r\n")
//                                          .read_line()            // "USER u\r\n"
//                                          .send("-ERR no\r\n"));
//     ... let the client connect to 127.0.0.1:server.port() ...
//     ASSERT_TRUE(server.wait_done());
//     EXPECT_EQ(server.received(), "USER u\r\n");
//
// Rules of play:
// - The script starts by accepting the first connection; accept() closes the
//   current connection and accepts the next one.
// - Every byte read from any connection is recorded, in order, in received().
//   read_line() and read_until() also store what they consumed (terminator
//   included) as one entry of records().
// - Every blocking wait (accept, read, write) is bounded: 10 s by default,
//   changed for the later steps by bound_ms(). A wait that runs out, or a peer
//   that closes while a read step waits, ends the script with failed() true
//   and a reason in error(); the connection is then closed.
// - When the last step has run, the connection is closed. Bytes the client
//   sent that no step read may make the kernel reset the connection (RST)
//   instead of a clean close; add a read step (or drain()) for them.
// - The destructor interrupts any wait or sleep, closes every socket and joins
//   the thread, so a test never hangs on its server.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kemail_test {

// The steps of one dialogue. Each method appends a step and returns *this.
class Script {
public:
    enum class Op {
        Send,
        ReadLine,
        ReadUntil,
        Drain,
        Sleep,
        Close,
        Reset,
        ShutdownWrite,
        Accept,
        Bound
    };
    struct Step {
        Op op;
        std::string bytes;  // Send: what to send; ReadUntil: the terminator
        int ms = 0;         // Sleep, Bound: milliseconds
    };

    // Sends the bytes as they are (any length, any byte values, NULs too).
    Script& send(std::string_view bytes);
    // Reads up to and including the next LF (so "...\r\n" or a bare "...\n").
    Script& read_line();
    // Reads up to and including the terminator, e.g. "\r\n.\r\n".
    Script& read_until(std::string_view terminator);
    // Reads until the peer closes (or the bound runs out); records the bytes.
    Script& drain();
    // Does nothing for ms milliseconds (a delay, or silence when the client
    // waits). A client on the test clock (support/fake_clock.h) takes it as
    // silence: its wait ends as a time-out at once.
    Script& sleep_ms(int ms);
    // Closes the connection now (an orderly close: FIN).
    Script& close();
    // Aborts the connection now (SO_LINGER 0: the peer sees a reset).
    Script& reset();
    // Shuts down the sending side only; later read steps still work.
    Script& shutdown_write();
    // Closes the current connection (if any) and accepts the next one.
    Script& accept();
    // Sets the bound of every later wait (default 10000 ms).
    Script& bound_ms(int ms);

    const std::vector<Step>& steps() const { return steps_; }

private:
    std::vector<Step> steps_;
};

// Where a scripted server listens.
enum class Loopback { Ipv4, Ipv6 };

// True when a socket can be bound to [::1] (lo has an IPv6 address).
bool has_ipv6_loopback();

class ScriptServer {
public:
    // Binds and listens at once (port() is valid on return), then plays the
    // script in its own thread. Aborts the test program if it cannot listen.
    // 127.0.0.1 unless [::1] is asked for.
    explicit ScriptServer(Script script, Loopback where = Loopback::Ipv4);
    ~ScriptServer();
    ScriptServer(const ScriptServer&) = delete;
    ScriptServer& operator=(const ScriptServer&) = delete;

    uint16_t port() const { return port_; }

    // Waits until the script has ended (run to its end or failed), at most
    // bound_ms; true when it has ended.
    bool wait_done(int bound_ms = 10000);
    bool done() const;
    // After the end: true when a step could not be completed, and why.
    bool failed() const;
    std::string error() const;

    // Every byte received so far, from all connections, in order.
    std::string received() const;
    // What each read_line/read_until/drain step consumed, in step order.
    std::vector<std::string> records() const;
    // Connections accepted so far.
    int connections() const;
    // Ends the sleep step now running (or the next one, if none runs): for a
    // test whose client has given up on a silent server and that wants the
    // rest of the script played now.
    void end_silence();

private:
    void run(Script script);
    void play(const Script& script);
    void fail(std::string reason);

    // Low-level waits shared by the steps; false when the bound ran out or
    // the server is stopping.
    bool wait_fd(int fd, short events, int bound_ms);
    bool sleep_interruptible(int ms);
    bool accept_next(int bound_ms);
    void close_conn(bool abort);
    // Reads more bytes into pending_; false when the peer closed or the wait
    // failed (reason set).
    bool read_more(int bound_ms, bool eof_is_error);

    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    int silence_[2] = {-1, -1};  // a byte here ends a sleep step
    int conn_ = -1;
    uint16_t port_ = 0;
    std::string pending_;  // bytes read but not yet consumed by a step

    mutable std::mutex mutex_;
    std::condition_variable done_cv_;
    bool done_ = false;
    std::string error_;
    std::string received_;
    std::vector<std::string> records_;
    int connections_ = 0;

    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// A port on 127.0.0.1 with nothing listening: the object keeps a socket bound
// to it (without listen), so no one else can take it while the object lives,
// and every connect to it is refused (ECONNREFUSED).
class RefusedPort {
public:
    RefusedPort();
    ~RefusedPort();
    RefusedPort(const RefusedPort&) = delete;
    RefusedPort& operator=(const RefusedPort&) = delete;
    uint16_t port() const { return port_; }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

// For the servers the tests write themselves: sends all of bytes (EINTR
// retried, no SIGPIPE); false when the peer took no more.
bool send_whole(int fd, std::string_view bytes);
// True when line starts with word (capital letters), in any letter case.
bool starts_with_word(const std::string& line, const char* word);

// A do-nothing SMTP server for benchmarks and bulk tests: accepts any number of
// connections one after the other, greets with "220 sink ESMTP\r\n", answers
// EHLO with "250-sink\r\n250 8BITMIME\r\n", DATA with "354 go ahead\r\n" and
// then discards the message up to "\r\n.\r\n" and answers "250 OK\r\n", QUIT
// with "221 bye\r\n" (then closes and waits for the next connection), and any
// other line with "250 OK\r\n". Nothing is recorded; it runs until destroyed.
class SmtpSink {
public:
    SmtpSink();
    ~SmtpSink();
    SmtpSink(const SmtpSink&) = delete;
    SmtpSink& operator=(const SmtpSink&) = delete;

    uint16_t port() const { return port_; }
    // Messages completed (end-of-data seen), connections accepted and
    // connections closed again so far.
    unsigned long messages() const { return messages_.load(); }
    unsigned long connections() const { return connections_.load(); }
    unsigned long closed() const { return closed_.load(); }
    // Waits (at most 5 s) until every connection accepted so far is closed;
    // false when one is still open.
    bool wait_all_closed() const;

private:
    void run();
    void serve(int fd);

    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    uint16_t port_ = 0;
    std::atomic<unsigned long> messages_{0};
    std::atomic<unsigned long> connections_{0};
    std::atomic<unsigned long> closed_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace kemail_test
