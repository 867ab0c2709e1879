// The listening side the TLS test servers share: a socket on 127.0.0.1 at an
// ephemeral port and a server context with the test certificate. A set-up
// that fails ends the test program at once with the reason: a server that
// is not there would only show up later as a confusing client failure.
#pragma once

#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tls_test {

class TlsListener {
public:
    TlsListener(const std::string& cert, const std::string& key) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) fail("socket");
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fail("bind");
        if (listen(fd_, 1) != 0) fail("listen");
        socklen_t len = sizeof addr;
        if (getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) fail("getsockname");
        port_ = ntohs(addr.sin_port);
        context_ = SSL_CTX_new(TLS_server_method());
        if (context_ == nullptr) fail("SSL_CTX_new");
        if (SSL_CTX_use_certificate_file(context_, cert.c_str(), SSL_FILETYPE_PEM) != 1)
            fail("SSL_CTX_use_certificate_file");
        if (SSL_CTX_use_PrivateKey_file(context_, key.c_str(), SSL_FILETYPE_PEM) != 1)
            fail("SSL_CTX_use_PrivateKey_file");
    }
    ~TlsListener() {
        close(fd_);
        SSL_CTX_free(context_);
    }
    TlsListener(const TlsListener&) = delete;
    TlsListener& operator=(const TlsListener&) = delete;

    // Wakes an accept that waits, so that the server's thread can end.
    void stop_accepting() const { shutdown(fd_, SHUT_RDWR); }

    int fd() const { return fd_; }
    uint16_t port() const { return port_; }
    SSL_CTX* context() const { return context_; }

private:
    [[noreturn]] static void fail(const char* call) {
        std::perror(call);
        std::abort();
    }
    int fd_ = -1;
    uint16_t port_ = 0;
    SSL_CTX* context_ = nullptr;
};

}  // namespace tls_test
