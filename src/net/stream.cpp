#include "net/stream.h"

#include "tls/channel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/select.h>
#include <sys/socket.h>

namespace kemail::net {

// A socket without a TLS session is read and written as it always was; the
// session's waits are bounded by the clock its starter gave it.
ssize_t stream_send(int sock, const char* data, size_t length) {
    if (tls::TlsSession* session = tls::session_for(sock))
        return session->send(data, length, session->time_left());
    return ::send(sock, data, length, MSG_NOSIGNAL);
}

ssize_t stream_send_bounded(int sock, const char* data, size_t length,
                            void (*compute_wait)(struct timeval*), bool* waited_out) {
    *waited_out = false;
    if (tls::TlsSession* session = tls::session_for(sock))
        return session->send(data, length, session->time_left());
    // A socket select cannot watch is written as it always was.
    if (sock < 0 || sock >= FD_SETSIZE) return ::send(sock, data, length, MSG_NOSIGNAL);
    size_t sent = 0;
    for (;;) {
        const ssize_t n = ::send(sock, data + sent, length - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) {
            sent += static_cast<size_t>(n);
            if (sent == length || n == 0) return static_cast<ssize_t>(sent);
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            return sent > 0 ? static_cast<ssize_t>(sent) : -1;
        }
        struct timeval wait;
        compute_wait(&wait);
        fd_set writable;
        FD_ZERO(&writable);
        FD_SET(sock, &writable);
        const int ready = ::select(sock + 1, nullptr, &writable, nullptr, &wait);
        if (ready > 0) continue;
        if (ready == 0) {
            *waited_out = true;
            errno = ETIMEDOUT;
        }
        return sent > 0 ? static_cast<ssize_t>(sent) : -1;
    }
}

ssize_t stream_peek(int sock, char* buf, size_t length) {
    if (tls::TlsSession* session = tls::session_for(sock))
        return session->receive(buf, length, true, session->time_left());
    if (ReadAhead* ahead = ReadAhead::on(sock)) return ahead->peek(buf, length);
    return ::recv(sock, buf, length, MSG_PEEK);
}

ssize_t stream_recv(int sock, char* buf, size_t length) {
    if (tls::TlsSession* session = tls::session_for(sock))
        return session->receive(buf, length, false, session->time_left());
    if (ReadAhead* ahead = ReadAhead::on(sock)) return ahead->take(buf, length);
    return ::recv(sock, buf, length, 0);
}

bool stream_buffered(int sock) {
    tls::TlsSession* session = tls::session_for(sock);
    if (session == nullptr) {
        const ReadAhead* ahead = ReadAhead::on(sock);
        return ahead != nullptr && ahead->waiting() > 0;
    }
    // What was written must leave before the wait for the answer to it; a
    // failure is then reported by the read that follows at once.
    if (session->has_output() && session->flush(session->time_left()) != 0) return true;
    return session->pending();
}

namespace {

// Per thread: a session runs on its caller's thread, and a socket another
// thread reads is none of its business.
thread_local ReadAhead* t_read_ahead = nullptr;

}  // namespace

void ReadAhead::start(int sock) noexcept {
    stop();
    sock_ = sock;
    begin_ = end_ = 0;
    t_read_ahead = this;
}

void ReadAhead::stop() noexcept {
    if (t_read_ahead == this) t_read_ahead = nullptr;
    sock_ = -1;
    begin_ = end_ = 0;
}

ReadAhead* ReadAhead::on(int sock) noexcept {
    ReadAhead* ahead = t_read_ahead;
    return ahead != nullptr && ahead->sock_ == sock ? ahead : nullptr;
}

ssize_t ReadAhead::fill() noexcept {
    const ssize_t got = ::recv(sock_, bytes_, sizeof bytes_, 0);
    if (got > 0) {
        begin_ = 0;
        end_ = static_cast<size_t>(got);
    }
    return got;
}

ssize_t ReadAhead::peek(char* buf, size_t length) noexcept {
    if (waiting() == 0) {
        const ssize_t got = fill();
        if (got <= 0) return got;
    }
    const size_t n = std::min(length, waiting());
    std::memcpy(buf, bytes_ + begin_, n);
    return static_cast<ssize_t>(n);
}

ssize_t ReadAhead::take(char* buf, size_t length) noexcept {
    if (waiting() == 0) return ::recv(sock_, buf, length, 0);
    const size_t n = std::min(length, waiting());
    std::memcpy(buf, bytes_ + begin_, n);
    begin_ += n;
    return static_cast<ssize_t>(n);
}

}  // namespace kemail::net
