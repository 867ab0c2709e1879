// A one-connection TLS server on 127.0.0.1 for tests, built on OpenSSL
// directly (the test links it; the library loads it at run time). It runs
// a small script in its own thread: handshake, then send or expect bytes.
#pragma once

#include "tls_listener.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace tls_test {

class TlsServer {
public:
    // What the server does on the accepted connection; `plain` skips the
    // handshake (a server that does not speak TLS), `silent` never answers.
    enum class Mode { Tls, Plain, Silent };

    TlsServer(const std::string& cert, const std::string& key, Mode mode,
              std::function<void(SSL*, int)> script)
        : listener_(cert, key), mode_(mode), script_(std::move(script)) {
        thread_ = std::thread([this] { run(); });
    }
    ~TlsServer() {
        listener_.stop_accepting();
        thread_.join();
    }
    uint16_t port() const { return listener_.port(); }
    bool handshake_done() const { return handshake_done_; }

    // A connected client socket for the session under test.
    int connect_client() const {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(listener_.port());
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }

private:
    void run() {
        const int fd = accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        timeval limit{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        if (mode_ == Mode::Silent) {
            char scratch[4096];
            while (recv(fd, scratch, sizeof scratch, 0) > 0) {
            }
        } else if (mode_ == Mode::Plain) {
            script_(nullptr, fd);
        } else {
            SSL* ssl = SSL_new(listener_.context());
            SSL_set_fd(ssl, fd);
            if (SSL_accept(ssl) == 1) {
                handshake_done_ = true;
                script_(ssl, fd);
            }
            ERR_clear_error();
            SSL_free(ssl);
        }
        close(fd);
    }

    TlsListener listener_;
    Mode mode_;
    std::function<void(SSL*, int)> script_;
    std::atomic<bool> handshake_done_{false};
    std::thread thread_;
};

// Reads exactly n bytes from the TLS stream (or fewer when it ends).
inline std::string read_exactly(SSL* ssl, size_t n) {
    std::string got;
    char block[4096];
    while (got.size() < n) {
        const int r =
            SSL_read(ssl, block, static_cast<int>(std::min(sizeof block, n - got.size())));
        if (r <= 0) break;
        got.append(block, static_cast<size_t>(r));
    }
    return got;
}

}  // namespace tls_test
