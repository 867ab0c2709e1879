// A do-nothing SMTP server on 127.0.0.1 for the benchmarks: one connection
// at a time, every command answered at once, message data discarded. It
// announces PIPELINING and, when given an OpenSSL server context, STARTTLS.
#pragma once

#include "tls/test_pki.h"

#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

namespace bench {

using Clock = std::chrono::steady_clock;

// It notes when the last connection was accepted, which splits a send's time
// into composing (before the connection) and the session (after).
class Sink {
public:
    // With tls null the sink speaks in clear only; otherwise it offers
    // STARTTLS with that context's certificate.
    explicit Sink(uint16_t port = 0, SSL_CTX* tls = nullptr) : tls_(tls) {
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
    // TLS handshakes completed, and receptions that held more than one
    // command (a pipelined group): what shows that a send used STARTTLS or
    // pipelining rather than only being allowed to.
    unsigned long handshakes() const { return handshakes_.load(); }
    unsigned long command_groups() const { return command_groups_.load(); }

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

    // One accepted connection, in clear or (after STARTTLS) over TLS. Replies
    // are collected and written together when the received bytes are used
    // up, as a server that supports pipelining answers a command group.
    struct Connection {
        int fd;
        SSL* ssl = nullptr;
        std::string out;

        explicit Connection(int socket) : fd(socket) {}
        ~Connection() {
            if (ssl) {
                SSL_shutdown(ssl);
                SSL_free(ssl);
            }
        }
        void say(const char* text) { out += text; }
        bool flush() {
            size_t done = 0;
            while (done < out.size()) {
                const size_t left = out.size() - done;
                const ssize_t n = ssl ? SSL_write(ssl, out.data() + done, static_cast<int>(left))
                                      : send(fd, out.data() + done, left, MSG_NOSIGNAL);
                if (n <= 0) return false;
                done += static_cast<size_t>(n);
            }
            out.clear();
            return true;
        }
        ssize_t receive(char* into, size_t room) {
            if (!ssl) return recv(fd, into, room, 0);
            const int n = SSL_read(ssl, into, static_cast<int>(std::min<size_t>(room, INT32_MAX)));
            return n > 0 ? n : -1;
        }
    };

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
        const int one = 1;
        if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) return;
        Connection connection(fd);
        connection.say("220 sink ESMTP\r\n");
        if (!connection.flush()) return;
        static thread_local char buffer[256 * 1024];
        std::string line;
        bool in_data = false;
        size_t matched = 0;
        for (;;) {
            const ssize_t n = connection.receive(buffer, sizeof buffer);
            if (n <= 0) return;
            bool start_tls = false;
            int commands = 0;
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
                    connection.say("250 OK\r\n");
                    continue;
                }
                const char c = buffer[i];
                line.push_back(c);
                if (c != '\n') continue;
                ++commands;
                if (line.rfind("EHLO", 0) == 0) {
                    connection.say(tls_ && !connection.ssl
                                       ? "250-sink\r\n250-PIPELINING\r\n250-STARTTLS\r\n"
                                         "250 8BITMIME\r\n"
                                       : "250-sink\r\n250-PIPELINING\r\n250 8BITMIME\r\n");
                } else if (line.rfind("DATA", 0) == 0) {
                    in_data = true;
                    matched = 2;  // the command's CR LF starts the end mark
                    connection.say("354 go ahead\r\n");
                } else if (line.rfind("QUIT", 0) == 0) {
                    connection.say("221 bye\r\n");
                    connection.flush();
                    return;
                } else if (tls_ && !connection.ssl && line.rfind("STARTTLS", 0) == 0) {
                    // Bytes sent after STARTTLS before the handshake are an
                    // attack (RFC 3207, section 5): drop the connection.
                    if (i + 1 != n) return;
                    connection.say("220 ready to start TLS\r\n");
                    start_tls = true;
                } else {
                    connection.say("250 OK\r\n");
                }
                line.clear();
            }
            if (commands > 1) ++command_groups_;
            if (!connection.flush()) return;
            if (start_tls) {
                connection.ssl = SSL_new(tls_);
                if (!connection.ssl || SSL_set_fd(connection.ssl, fd) != 1 ||
                    SSL_accept(connection.ssl) != 1) {
                    return;
                }
                ++handshakes_;
            }
        }
    }

    SSL_CTX* tls_ = nullptr;
    int listen_fd_ = -1;
    uint16_t port_ = 0;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<Clock::rep> accepted_{0};
    std::atomic<unsigned long> messages_{0};
    std::atomic<unsigned long> handshakes_{0};
    std::atomic<unsigned long> command_groups_{0};
};

// The process's one sink, started at first use.
inline Sink& sink() {
    static Sink instance;
    return instance;
}

// What the TLS cases share, made at first use: a test CA and a server
// certificate for mx.kemail.test made with the openssl command, a sink that
// offers STARTTLS with it, and a client context that trusts only that CA
// and asks for TLS 1.2 at least (as the library does).
class TlsBench {
public:
    static constexpr const char* kServerName = "mx.kemail.test";

    TlsBench() {
        if (!pki_.ok()) return;
        server_ = SSL_CTX_new(TLS_server_method());
        client_ = SSL_CTX_new(TLS_client_method());
        if (!server_ || !client_ ||
            SSL_CTX_use_certificate_file(server_, pki_.server_cert().c_str(), SSL_FILETYPE_PEM) !=
                1 ||
            SSL_CTX_use_PrivateKey_file(server_, pki_.server_key().c_str(), SSL_FILETYPE_PEM) !=
                1 ||
            SSL_CTX_load_verify_locations(client_, pki_.ca().c_str(), nullptr) != 1 ||
            SSL_CTX_set_min_proto_version(client_, TLS1_2_VERSION) != 1) {
            return;
        }
        SSL_CTX_set_verify(client_, SSL_VERIFY_PEER, nullptr);
        sink_ = std::make_unique<Sink>(0, server_);
    }
    ~TlsBench() {
        sink_.reset();  // its thread may still use the server context
        SSL_CTX_free(server_);
        SSL_CTX_free(client_);
    }
    TlsBench(const TlsBench&) = delete;
    TlsBench& operator=(const TlsBench&) = delete;

    bool ok() const { return sink_ != nullptr; }
    Sink& sink() { return *sink_; }
    SSL_CTX* client() const { return client_; }
    std::string ca_file() const { return pki_.ca(); }

private:
    tls_test::TestPki pki_;
    SSL_CTX* server_ = nullptr;
    SSL_CTX* client_ = nullptr;
    std::unique_ptr<Sink> sink_;
};

inline TlsBench& tls() {
    static TlsBench instance;
    return instance;
}

}  // namespace bench
