#include "net/stream.h"

#include "tls/channel.h"

#include <sys/socket.h>

namespace kemail::net {

// A socket without a TLS session is read and written as it always was; the
// session's waits are bounded by the clock its starter gave it.
ssize_t stream_send(int sock, const char* data, size_t length) {
    if (tls::TlsSession* session = tls::session_for(sock))
        return session->send(data, length, session->time_left());
    return ::send(sock, data, length, MSG_NOSIGNAL);
}

ssize_t stream_peek(int sock, char* buf, size_t length) {
    if (tls::TlsSession* session = tls::session_for(sock))
        return session->receive(buf, length, true, session->time_left());
    return ::recv(sock, buf, length, MSG_PEEK);
}

ssize_t stream_recv(int sock, char* buf, size_t length) {
    if (tls::TlsSession* session = tls::session_for(sock))
        return session->receive(buf, length, false, session->time_left());
    return ::recv(sock, buf, length, 0);
}

bool stream_buffered(int sock) {
    tls::TlsSession* session = tls::session_for(sock);
    if (session == nullptr) return false;
    // What was written must leave before the wait for the answer to it; a
    // failure is then reported by the read that follows at once.
    if (session->has_output() && session->flush(session->time_left()) != 0) return true;
    return session->pending();
}

}  // namespace kemail::net
