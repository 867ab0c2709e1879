// A recording SMTP server on 127.0.0.1 for the reliability tests. Unlike the
// scripted server, it answers whatever the client says, so that a client that
// stops or stumbles at any point of its dialogue meets a sensible peer. It
// serves any number of connections at once (one thread, poll), records every
// message it accepted (the bytes between the DATA reply and the end mark,
// that mark included), and can misbehave at one command of each connection:
// refuse it, drop the connection instead of answering, answer late, or cut
// its reply short.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace reliability {

struct Fault {
    enum Kind { None, Refuse, Drop, Delay, Cut };
    Kind kind = None;
    // The command it hits, counted from 1 in each connection; the end of the
    // message data counts as a command of its own. 0 is the greeting.
    int command = 0;
    int delay_ms = 0;  // Delay: how long the reply waits
};

class MailServer {
public:
    MailServer();
    ~MailServer();
    MailServer(const MailServer&) = delete;
    MailServer& operator=(const MailServer&) = delete;

    uint16_t port() const { return port_; }

    // The fault every connection accepted from now on meets.
    void set_fault(const Fault& fault);
    // Stops serving: closes every socket and joins the thread.
    void stop();

    // Messages accepted (answered 250 after their end mark), in order.
    std::vector<std::string> accepted() const;
    // The reply sent to the last command before the client went away.
    std::string last_reply() const;
    // Forgets the accepted messages and the counters below.
    void clear();
    unsigned long connections() const { return connections_.load(); }
    // The most connections that were open at the same instant.
    int max_open() const { return max_open_.load(); }

private:
    struct Conn;
    void run();
    bool handle_input(Conn& c);
    bool reply(Conn& c, const std::string& text);

    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    uint16_t port_ = 0;
    mutable std::mutex mutex_;
    Fault fault_;
    std::vector<std::string> accepted_;
    std::string last_reply_;
    std::atomic<unsigned long> connections_{0};
    std::atomic<int> max_open_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace reliability
