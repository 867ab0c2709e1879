#include "net/stream.h"

#include <sys/socket.h>

namespace kemail::net {

ssize_t stream_send(int sock, const char* data, size_t length) {
    return ::send(sock, data, length, MSG_NOSIGNAL);
}

ssize_t stream_peek(int sock, char* buf, size_t length) {
    return ::recv(sock, buf, length, MSG_PEEK);
}

ssize_t stream_recv(int sock, char* buf, size_t length) { return ::recv(sock, buf, length, 0); }

bool stream_buffered(int) { return false; }

}  // namespace kemail::net
