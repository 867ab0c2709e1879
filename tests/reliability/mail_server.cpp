#include "reliability/mail_server.h"
#include "support/script_server.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace reliability {

namespace {

using kemail_test::send_whole;
using kemail_test::starts_with_word;

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "mail_server: %s: %s\n", what, std::strerror(errno));
    std::abort();
}

constexpr char kEndMark[] = "\r\n.\r\n";

}  // namespace

struct MailServer::Conn {
    int fd = -1;
    int commands = 0;
    std::string line;
    bool in_data = false;
    size_t matched = 0;
    std::string data;
};

MailServer::MailServer() {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0) die("socket");
    const int on = 1;
    ::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) die("bind");
    if (::listen(listen_fd_, 64) != 0) die("listen");
    socklen_t len = sizeof addr;
    if (::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        die("getsockname");
    port_ = ntohs(addr.sin_port);
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) die("pipe2");
    thread_ = std::thread(&MailServer::run, this);
}

MailServer::~MailServer() { stop(); }

void MailServer::stop() {
    if (!thread_.joinable()) return;
    stopping_ = true;
    const char byte = 'x';
    if (::write(wake_[1], &byte, 1) < 0) die("wake");
    thread_.join();
    ::close(listen_fd_);
    ::close(wake_[0]);
    ::close(wake_[1]);
    listen_fd_ = wake_[0] = wake_[1] = -1;
}

void MailServer::set_fault(const Fault& fault) {
    std::lock_guard lock(mutex_);
    fault_ = fault;
}

std::vector<std::string> MailServer::accepted() const {
    std::lock_guard lock(mutex_);
    return accepted_;
}

std::string MailServer::last_reply() const {
    std::lock_guard lock(mutex_);
    return last_reply_;
}

void MailServer::clear() {
    std::lock_guard lock(mutex_);
    accepted_.clear();
    last_reply_.clear();
    connections_ = 0;
    max_open_ = 0;
}

// Answers the connection's current command, meeting the fault when it is
// the one hit. False when the connection is to be closed.
bool MailServer::reply(Conn& c, const std::string& text) {
    Fault fault;
    {
        std::lock_guard lock(mutex_);
        fault = fault_;
    }
    const bool hit = fault.kind != Fault::None && fault.command == c.commands;
    std::string answer = text;
    if (hit) {
        switch (fault.kind) {
            case Fault::Refuse:
                answer = "554 5.7.1 refused at command " + std::to_string(c.commands) + "\r\n";
                break;
            case Fault::Drop: return false;
            case Fault::Delay:
                std::this_thread::sleep_for(std::chrono::milliseconds(fault.delay_ms));
                break;
            case Fault::Cut: send_whole(c.fd, std::string_view(answer).substr(0, 2)); return false;
            case Fault::None: break;
        }
    }
    {
        std::lock_guard lock(mutex_);
        last_reply_ = answer;
    }
    return send_whole(c.fd, answer);
}

bool MailServer::handle_input(Conn& c) {
    char buf[65536];
    const ssize_t n = ::recv(c.fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) return false;
    for (ssize_t i = 0; i < n; ++i) {
        const char ch = buf[i];
        if (c.in_data) {
            c.data.push_back(ch);
            if (ch == kEndMark[c.matched]) {
                ++c.matched;
            } else {
                c.matched = ch == '\r' ? 1 : 0;
            }
            if (c.matched == sizeof kEndMark - 1) {
                c.in_data = false;
                ++c.commands;
                std::string message;
                message.swap(c.data);
                // Recorded before the answer leaves: the client may go on at once.
                const bool refused = [&] {
                    std::lock_guard lock(mutex_);
                    return fault_.kind != Fault::None && fault_.command == c.commands &&
                           fault_.kind != Fault::Delay;
                }();
                if (!refused) {
                    std::lock_guard lock(mutex_);
                    accepted_.push_back(std::move(message));
                }
                if (!reply(c, "250 2.0.0 queued\r\n")) return false;
            }
            continue;
        }
        c.line.push_back(ch);
        if (ch != '\n') continue;
        ++c.commands;
        std::string answer = "250 2.0.0 Ok\r\n";
        bool quit = false;
        if (starts_with_word(c.line, "EHLO")) {
            answer = "250-sweep\r\n250 8BITMIME\r\n";
        } else if (starts_with_word(c.line, "DATA")) {
            answer = "354 go ahead\r\n";
        } else if (starts_with_word(c.line, "QUIT")) {
            answer = "221 2.0.0 Bye\r\n";
            quit = true;
        }
        const bool data = starts_with_word(c.line, "DATA");
        c.line.clear();
        if (!reply(c, answer) || quit) return false;
        {
            std::lock_guard lock(mutex_);
            if (data && last_reply_[0] == '3') {
                c.in_data = true;
                c.matched = 2;  // the command's own CR LF begins the end mark
                c.data.clear();
            }
        }
    }
    return true;
}

void MailServer::run() {
    std::list<Conn> conns;
    while (!stopping_) {
        std::vector<pollfd> fds;
        fds.push_back({wake_[0], POLLIN, 0});
        fds.push_back({listen_fd_, POLLIN, 0});
        for (const Conn& c : conns) fds.push_back({c.fd, POLLIN, 0});
        const int n = ::poll(fds.data(), fds.size(), -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            die("poll");
        }
        if (fds[0].revents != 0) break;
        size_t index = 2;
        for (auto it = conns.begin(); it != conns.end(); ++index) {
            if (fds[index].revents == 0) {
                ++it;
                continue;
            }
            if (handle_input(*it)) {
                ++it;
                continue;
            }
            ::close(it->fd);
            it = conns.erase(it);
        }
        if (fds[1].revents & POLLIN) {
            const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            ++connections_;
            conns.push_back(Conn{});
            Conn& c = conns.back();
            c.fd = fd;
            const int open_now = static_cast<int>(conns.size());
            int seen = max_open_.load();
            while (open_now > seen && !max_open_.compare_exchange_weak(seen, open_now)) {
            }
            if (!reply(c, "220 sweep ESMTP\r\n")) {
                ::close(fd);
                conns.pop_back();
            }
        }
    }
    for (Conn& c : conns) ::close(c.fd);
}

}  // namespace reliability
