// A do-nothing SMTP server on 127.0.0.1 for the benchmarks: one connection
// at a time, every command answered at once, message data discarded.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace bench {

using Clock = std::chrono::steady_clock;

// It notes when the last connection was accepted, which splits a send's time
// into composing (before the connection) and the session (after).
class Sink {
public:
    explicit Sink(uint16_t port = 0) {
        listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int one = 1;
        setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(port);
        if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(listen_fd_, 16) != 0) {
            std::perror("sink");
            std::exit(1);
        }
        socklen_t len = sizeof addr;
        getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
        thread_ = std::thread([this] { run(); });
    }
    ~Sink() {
        stopping_ = true;
        shutdown(listen_fd_, SHUT_RDWR);
        thread_.join();
        close(listen_fd_);
    }
    uint16_t port() const { return port_; }
    Clock::time_point last_accept() const {
        return Clock::time_point(Clock::duration(accepted_.load()));
    }
    unsigned long messages() const { return messages_.load(); }

private:
    void run() {
        while (!stopping_) {
            const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                if (stopping_) return;
                continue;
            }
            accepted_ = Clock::now().time_since_epoch().count();
            serve(fd);
            close(fd);
        }
    }

    static bool say(int fd, const char* text) {
        const size_t length = std::strlen(text);
        return send(fd, text, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
    }

    // Looks for the end of message data in data[0, n): returns the bytes up to
    // and including the mark, or 0 when the mark is not complete yet.
    // `matched` carries how much of the mark ended the previous block.
    static size_t end_of_data(const char* data, size_t n, size_t& matched) {
        static const char kMark[] = "\r\n.\r\n";
        constexpr size_t kLength = sizeof kMark - 1;
        size_t i = 0;
        while (matched > 0 && i < n) {  // finish a mark begun in the previous block
            const char c = data[i++];
            matched = c == kMark[matched] ? matched + 1 : (c == '\r' ? 1 : 0);
            if (matched == kLength) {
                matched = 0;
                return i;
            }
        }
        if (const void* hit = memmem(data + i, n - i, kMark, kLength)) {
            return static_cast<size_t>(static_cast<const char*>(hit) - data) + kLength;
        }
        matched = 0;
        for (size_t k = std::min(kLength - 1, n - i); k > 0; --k) {
            if (std::memcmp(data + n - k, kMark, k) == 0) {
                matched = k;
                break;
            }
        }
        return 0;
    }

    void serve(int fd) {
        if (!say(fd, "220 sink ESMTP\r\n")) return;
        static thread_local char buffer[256 * 1024];
        std::string line;
        bool in_data = false;
        size_t matched = 0;
        for (;;) {
            const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) return;
            for (ssize_t i = 0; i < n; ++i) {
                if (in_data) {
                    // The end mark is looked for with memmem rather than byte by
                    // byte: the sink's own cost must not be what is measured.
                    const size_t used =
                        end_of_data(buffer + i, static_cast<size_t>(n - i), matched);
                    if (used == 0) break;  // the whole rest is message data
                    i += static_cast<ssize_t>(used) - 1;
                    in_data = false;
                    ++messages_;
                    if (!say(fd, "250 OK\r\n")) return;
                    continue;
                }
                const char c = buffer[i];
                line.push_back(c);
                if (c != '\n') continue;
                if (line.rfind("EHLO", 0) == 0) {
                    if (!say(fd, "250-sink\r\n250 8BITMIME\r\n")) return;
                } else if (line.rfind("DATA", 0) == 0) {
                    in_data = true;
                    matched = 2;  // the command's CR LF starts the end mark
                    if (!say(fd, "354 go ahead\r\n")) return;
                } else if (line.rfind("QUIT", 0) == 0) {
                    say(fd, "221 bye\r\n");
                    return;
                } else if (!say(fd, "250 OK\r\n")) {
                    return;
                }
                line.clear();
            }
        }
    }

    int listen_fd_ = -1;
    uint16_t port_ = 0;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<Clock::rep> accepted_{0};
    std::atomic<unsigned long> messages_{0};
};

// The process's one sink, started at first use.
inline Sink& sink() {
    static Sink instance;
    return instance;
}

}  // namespace bench
