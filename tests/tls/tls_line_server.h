// A line-protocol server for the TLS tests of the SMTP session and of POP
// before SMTP: it speaks in clear, turns to TLS when its handler says so
// (STARTTLS, STLS) or from the first byte (SMTPS, POP3S), and records every
// line it reads, marked with the layer it came over.
#pragma once

#include "tls_listener.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tls_test {

class LineConnection {
public:
    LineConnection(int fd, SSL_CTX* context) : fd_(fd), context_(context) {}
    ~LineConnection() {
        if (ssl_ != nullptr) {
            SSL_shutdown(ssl_);
            SSL_free(ssl_);
        }
        ERR_clear_error();
    }
    LineConnection(const LineConnection&) = delete;
    LineConnection& operator=(const LineConnection&) = delete;

    int fd() const { return fd_; }
    bool encrypted() const { return ssl_ != nullptr; }

    // The server side of the handshake; false when it failed.
    bool start_tls() {
        ssl_ = SSL_new(context_);
        SSL_set_fd(ssl_, fd_);
        if (SSL_accept(ssl_) == 1) return true;
        SSL_free(ssl_);
        ssl_ = nullptr;
        ERR_clear_error();
        return false;
    }
    bool send(const std::string& text) {
        if (ssl_ != nullptr) {
            return SSL_write(ssl_, text.data(), static_cast<int>(text.size())) ==
                   static_cast<int>(text.size());
        }
        return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }
    // One line, LF included; false at the end of the stream.
    bool read_line(std::string& line) {
        line.clear();
        char c = 0;
        for (;;) {
            const int got =
                ssl_ != nullptr ? SSL_read(ssl_, &c, 1) : static_cast<int>(::recv(fd_, &c, 1, 0));
            if (got <= 0) return false;
            line += c;
            if (c == '\n') return true;
        }
    }

private:
    int fd_;
    SSL_CTX* context_;
    SSL* ssl_ = nullptr;
};

class LineTlsServer {
public:
    using Handler = std::function<void(LineConnection&, LineTlsServer&)>;

    LineTlsServer(const std::string& cert, const std::string& key, Handler handler)
        : listener_(cert, key), handler_(std::move(handler)) {
        thread_ = std::thread([this] { run(); });
    }
    ~LineTlsServer() {
        listener_.stop_accepting();
        thread_.join();
    }
    uint16_t port() const { return listener_.port(); }

    // Every line read, "plain: " or "tls: " in front.
    std::vector<std::string> lines() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return lines_;
    }
    void record(const LineConnection& connection, const std::string& line) {
        const std::lock_guard<std::mutex> guard(lock_);
        lines_.push_back((connection.encrypted() ? "tls: " : "plain: ") + line);
    }

private:
    void run() {
        const int fd = accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        timeval limit{10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        {
            LineConnection connection(fd, listener_.context());
            handler_(connection, *this);
        }
        close(fd);
    }

    TlsListener listener_;
    Handler handler_;
    mutable std::mutex lock_;
    std::vector<std::string> lines_;
    std::thread thread_;
};

}  // namespace tls_test
