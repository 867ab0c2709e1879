#include "support/script_server.h"

#include "support/fake_clock.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kemail_test {

namespace {

constexpr int kDefaultBoundMs = 10000;

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "script_server: %s: %s\n", what, std::strerror(errno));
    std::abort();
}

// A socket bound to [::1] on an ephemeral port, listening.
int bound_ipv6_socket(uint16_t* port) {
    int fd = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) die("socket");
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_addr = in6addr_loopback;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) die("bind");
    if (::listen(fd, 16) != 0) die("listen");
    socklen_t len = sizeof addr;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) die("getsockname");
    *port = ntohs(addr.sin6_port);
    return fd;
}

// A socket bound to 127.0.0.1 on an ephemeral port; listening when asked.
int bound_socket(uint16_t* port, bool listening) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) die("socket");
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) die("bind");
    if (listening && ::listen(fd, 16) != 0) die("listen");
    socklen_t len = sizeof addr;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) die("getsockname");
    *port = ntohs(addr.sin_port);
    return fd;
}

void make_wake_pipe(int fds[2]) {
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) die("pipe2");
}

void wake(int fd) {
    const char byte = 'x';
    ssize_t ignored = ::write(fd, &byte, 1);
    (void)ignored;
}

void close_fd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// Waits until fd shows one of events (or an error/hang-up, which the next call
// on it reports), the wake pipe is written, or bound_ms runs out (-1: no
// bound). Returns 1 ready, 0 bound ran out, -1 woken.
int poll_with_wake(int fd, short events, int wake_fd, int bound_ms) {
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::milliseconds(bound_ms < 0 ? 0 : bound_ms);
    for (;;) {
        int wait = -1;
        if (bound_ms >= 0) {
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now());
            wait = left.count() < 0 ? 0 : static_cast<int>(left.count());
        }
        // fds[0] is the wake pipe; fds[1] the watched descriptor, if any.
        pollfd fds[2] = {{wake_fd, POLLIN, 0}, {fd, events, 0}};
        int n = ::poll(fds, fd >= 0 ? 2 : 1, wait);
        if (n < 0) {
            if (errno == EINTR) continue;
            die("poll");
        }
        if (n == 0) return 0;
        if (fds[0].revents != 0) return -1;
        return 1;
    }
}

std::string errno_text(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

// ---------------------------------------------------------------- Script

Script& Script::send(std::string_view bytes) {
    steps_.push_back({Op::Send, std::string(bytes), 0});
    return *this;
}
Script& Script::read_line() {
    steps_.push_back({Op::ReadLine, "\n", 0});
    return *this;
}
Script& Script::read_until(std::string_view terminator) {
    steps_.push_back({Op::ReadUntil, std::string(terminator), 0});
    return *this;
}
Script& Script::drain() {
    steps_.push_back({Op::Drain, {}, 0});
    return *this;
}
Script& Script::sleep_ms(int ms) {
    steps_.push_back({Op::Sleep, {}, ms});
    return *this;
}
Script& Script::close() {
    steps_.push_back({Op::Close, {}, 0});
    return *this;
}
Script& Script::reset() {
    steps_.push_back({Op::Reset, {}, 0});
    return *this;
}
Script& Script::shutdown_write() {
    steps_.push_back({Op::ShutdownWrite, {}, 0});
    return *this;
}
Script& Script::accept() {
    steps_.push_back({Op::Accept, {}, 0});
    return *this;
}
Script& Script::bound_ms(int ms) {
    steps_.push_back({Op::Bound, {}, ms});
    return *this;
}

// ---------------------------------------------------------------- ScriptServer

bool has_ipv6_loopback() {
    const int fd = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_addr = in6addr_loopback;
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return bound;
}

ScriptServer::ScriptServer(Script script, Loopback where) {
    listen_fd_ = where == Loopback::Ipv6 ? bound_ipv6_socket(&port_) : bound_socket(&port_, true);
    make_wake_pipe(wake_);
    make_wake_pipe(silence_);
    thread_ = std::thread(&ScriptServer::run, this, std::move(script));
}

ScriptServer::~ScriptServer() {
    stopping_ = true;
    wake(wake_[1]);
    if (thread_.joinable()) thread_.join();
    close_fd(conn_);
    close_fd(listen_fd_);
    close_fd(wake_[0]);
    close_fd(wake_[1]);
    close_fd(silence_[0]);
    close_fd(silence_[1]);
}

void ScriptServer::end_silence() { wake(silence_[1]); }

bool ScriptServer::wait_done(int bound_ms) {
    std::unique_lock lock(mutex_);
    return done_cv_.wait_for(lock, std::chrono::milliseconds(bound_ms), [this] { return done_; });
}

bool ScriptServer::done() const {
    std::lock_guard lock(mutex_);
    return done_;
}

bool ScriptServer::failed() const {
    std::lock_guard lock(mutex_);
    return !error_.empty();
}

std::string ScriptServer::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}

std::string ScriptServer::received() const {
    std::lock_guard lock(mutex_);
    return received_;
}

std::vector<std::string> ScriptServer::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

int ScriptServer::connections() const {
    std::lock_guard lock(mutex_);
    return connections_;
}

void ScriptServer::fail(std::string reason) {
    std::lock_guard lock(mutex_);
    if (error_.empty()) error_ = std::move(reason);
}

void ScriptServer::run(Script script) {
    play(script);
    close_conn(false);
    std::lock_guard lock(mutex_);
    done_ = true;
    done_cv_.notify_all();
}

bool ScriptServer::wait_fd(int fd, short events, int bound_ms) {
    int r = poll_with_wake(fd, events, wake_[0], bound_ms);
    if (r == 1) return true;
    fail(r == 0 ? "bound of " + std::to_string(bound_ms) + " ms ran out" : "server stopped");
    return false;
}

bool ScriptServer::sleep_interruptible(int ms) {
    const int r = poll_with_wake(silence_[0], POLLIN, wake_[0], ms);
    if (r < 0) {
        fail("server stopped");
        return false;
    }
    if (r == 1) {
        char byte;
        ssize_t ignored = ::read(silence_[0], &byte, 1);
        (void)ignored;
    }
    return true;
}

bool ScriptServer::accept_next(int bound_ms) {
    if (!wait_fd(listen_fd_, POLLIN, bound_ms)) {
        fail("no connection to accept");
        return false;
    }
    for (;;) {
        int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            conn_ = fd;
            pending_.clear();
            std::lock_guard lock(mutex_);
            ++connections_;
            return true;
        }
        if (errno == EINTR || errno == ECONNABORTED) continue;
        fail(errno_text("accept"));
        return false;
    }
}

void ScriptServer::close_conn(bool abort) {
    if (conn_ < 0) return;
    if (abort) {
        linger lg{1, 0};
        ::setsockopt(conn_, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    }
    close_fd(conn_);
}

bool ScriptServer::read_more(int bound_ms, bool eof_is_error) {
    if (conn_ < 0) {
        fail("read: no connection");
        return false;
    }
    if (!wait_fd(conn_, POLLIN, bound_ms)) return false;
    char buf[65536];
    for (;;) {
        ssize_t n = ::recv(conn_, buf, sizeof buf, 0);
        if (n > 0) {
            pending_.append(buf, static_cast<size_t>(n));
            std::lock_guard lock(mutex_);
            received_.append(buf, static_cast<size_t>(n));
            return true;
        }
        if (n == 0) {
            if (eof_is_error) {
                fail("peer closed the connection with " + std::to_string(pending_.size()) +
                     " bytes of an unfinished read");
            }
            return false;
        }
        if (errno == EINTR) continue;
        fail(errno_text("recv"));
        return false;
    }
}

void ScriptServer::play(const Script& script) {
    int bound = kDefaultBoundMs;
    if (!accept_next(bound)) return;
    for (const Script::Step& step : script.steps()) {
        if (stopping_) {
            fail("server stopped");
            return;
        }
        switch (step.op) {
            case Script::Op::Send: {
                if (conn_ < 0) {
                    fail("send: no connection");
                    return;
                }
                size_t done = 0;
                while (done < step.bytes.size()) {
                    ssize_t n = ::send(conn_, step.bytes.data() + done, step.bytes.size() - done,
                                       MSG_NOSIGNAL | MSG_DONTWAIT);
                    if (n > 0) {
                        done += static_cast<size_t>(n);
                    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                        if (!wait_fd(conn_, POLLOUT, bound)) return;
                    } else if (n < 0 && errno == EINTR) {
                        continue;
                    } else {
                        fail(errno_text("send"));
                        return;
                    }
                }
                break;
            }
            case Script::Op::ReadLine:
            case Script::Op::ReadUntil: {
                const std::string& term = step.bytes;
                size_t from = 0;
                for (;;) {
                    size_t pos = pending_.find(term, from);
                    if (pos != std::string::npos) {
                        size_t end = pos + term.size();
                        std::lock_guard lock(mutex_);
                        records_.push_back(pending_.substr(0, end));
                        pending_.erase(0, end);
                        break;
                    }
                    // The terminator may straddle the next read: search again from
                    // just before the end of what we have.
                    from = pending_.size() >= term.size() ? pending_.size() - term.size() + 1 : 0;
                    if (!read_more(bound, true)) return;
                }
                break;
            }
            case Script::Op::Drain: {
                while (read_more(bound, false)) {
                }
                if (failed()) return;
                std::lock_guard lock(mutex_);
                records_.push_back(pending_);
                pending_.clear();
                break;
            }
            case Script::Op::Sleep: {
                // Everything sent so far is written: a client waiting on the test
                // clock may now time out without waiting for real.
                fake_clock_silence(+1);
                const bool slept = sleep_interruptible(step.ms);
                fake_clock_silence(-1);
                if (!slept) return;
                break;
            }
            case Script::Op::Close: close_conn(false); break;
            case Script::Op::Reset: close_conn(true); break;
            case Script::Op::ShutdownWrite:
                if (conn_ >= 0) ::shutdown(conn_, SHUT_WR);
                break;
            case Script::Op::Accept:
                close_conn(false);
                if (!accept_next(bound)) return;
                break;
            case Script::Op::Bound: bound = step.ms; break;
        }
    }
}

// ---------------------------------------------------------------- RefusedPort

RefusedPort::RefusedPort() { fd_ = bound_socket(&port_, false); }

RefusedPort::~RefusedPort() { close_fd(fd_); }

// ---------------------------------------------------------------- SmtpSink

SmtpSink::SmtpSink() {
    listen_fd_ = bound_socket(&port_, true);
    make_wake_pipe(wake_);
    thread_ = std::thread(&SmtpSink::run, this);
}

SmtpSink::~SmtpSink() {
    stopping_ = true;
    wake(wake_[1]);
    if (thread_.joinable()) thread_.join();
    close_fd(listen_fd_);
    close_fd(wake_[0]);
    close_fd(wake_[1]);
}

void SmtpSink::run() {
    while (!stopping_) {
        if (poll_with_wake(listen_fd_, POLLIN, wake_[0], -1) != 1) return;
        int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        ++connections_;
        serve(fd);
        ::close(fd);
        ++closed_;
    }
}

bool SmtpSink::wait_all_closed() const {
    for (int tries = 0; closed() < connections(); ++tries) {
        if (tries == 500) return false;
        ::usleep(10 * 1000);
    }
    return true;
}

bool send_whole(int fd, std::string_view bytes) {
    const char* text = bytes.data();
    size_t left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::send(fd, text, left, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        text += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

bool starts_with_word(const std::string& line, const char* word) {
    const size_t n = std::strlen(word);
    if (line.size() < n) return false;
    for (size_t i = 0; i < n; ++i) {
        char c = line[i];
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if (c != word[i]) return false;
    }
    return true;
}

void SmtpSink::serve(int fd) {
    static const char kEnd[] = "\r\n.\r\n";
    if (!send_whole(fd, "220 sink ESMTP\r\n")) return;
    std::string line;
    bool in_data = false;
    size_t matched = 0;  // bytes of kEnd matched so far while in data
    char buf[65536];
    for (;;) {
        if (poll_with_wake(fd, POLLIN, wake_[0], -1) != 1) return;
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        for (ssize_t i = 0; i < n; ++i) {
            const char c = buf[i];
            if (in_data) {
                if (c == kEnd[matched]) {
                    ++matched;
                } else {
                    matched = c == '\r' ? 1 : 0;
                }
                if (matched == sizeof kEnd - 1) {
                    in_data = false;
                    ++messages_;
                    if (!send_whole(fd, "250 OK\r\n")) return;
                }
                continue;
            }
            line.push_back(c);
            if (c != '\n') continue;
            const char* reply = "250 OK\r\n";
            bool quit = false;
            if (starts_with_word(line, "EHLO")) {
                reply = "250-sink\r\n250 8BITMIME\r\n";
            } else if (starts_with_word(line, "DATA")) {
                reply = "354 go ahead\r\n";
                in_data = true;
                matched = 2;  // the command's own CR LF starts the terminator
            } else if (starts_with_word(line, "QUIT")) {
                reply = "221 bye\r\n";
                quit = true;
            }
            line.clear();
            if (!send_whole(fd, reply) || quit) return;
        }
    }
}

}  // namespace kemail_test
