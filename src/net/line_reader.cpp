// One line from a socket, waiting with select, without taking anything that
// follows the line's end.
#include "net/net.h"
#include "net/stream.h"

#include <cerrno>
#include <cstring>

#include <sys/select.h>
#include <sys/socket.h>

namespace kemail::net {

namespace {

// Bytes looked at per arrival: one reply buffer's worth. A longer line is
// taken in several arrivals.
constexpr size_t kPeekSize = KEMAIL_RECV_BUF_SIZE;

// Takes the bytes that are waiting on the socket, but never more than up to
// and including the first line end: the rest belongs to the next line or
// reply and must stay in the socket. `prev` is the byte stored just before
// dst (0 at the start of the line), so that a CR LF split across two
// arrivals is seen. Returns recv's result: the byte count, 0 at end of
// stream, or -1.
ssize_t take_line_bytes(int sock, char* dst, size_t room, char prev, LineEnd end) {
    char peeked[kPeekSize];
    const ssize_t got = stream_peek(sock, peeked, room < sizeof peeked ? room : sizeof peeked);
    if (got <= 0) return got;
    size_t want = static_cast<size_t>(got);
    for (const char* lf = peeked;
         (lf = static_cast<const char*>(std::memchr(lf, '\n', peeked + got - lf))) != nullptr;
         ++lf) {
        const char before = lf > peeked ? lf[-1] : prev;
        if (end == LineEnd::Lf || before == '\r') {
            want = static_cast<size_t>(lf - peeked) + 1;
            break;
        }
    }
    return stream_recv(sock, dst, want);
}

bool line_ended(const char* buf, size_t count, LineEnd end) {
    if (end == LineEnd::Lf) return count > 0 && buf[count - 1] == '\n';
    return count > 1 && buf[count - 2] == '\r' && buf[count - 1] == '\n';
}

}  // namespace

LineRead read_line(int sock, char* buf, size_t capacity, LineEnd end, LineWait& waiter) {
    if (sock < 0 || sock >= FD_SETSIZE) return {LineStatus::SelectFailed, 0, -1, EBADF};
    fd_set watched;
    FD_ZERO(&watched);
    FD_SET(sock, &watched);
    struct timeval wait;
    waiter.compute(&wait);

    size_t count = 0;
    int closed = 0;
    while (count < capacity) {
        fd_set readable = watched;
        struct timeval left = wait;
        // Bytes a TLS session has already decrypted are not on the socket:
        // waiting for it would stall on a reply that has arrived.
        const int selected =
            stream_buffered(sock) ? 1 : ::select(sock + 1, &readable, nullptr, nullptr, &left);
        const int select_error = errno;
        if (selected < 0) {
            if (select_error != EINTR) {
                return {LineStatus::SelectFailed, count, selected, select_error};
            }
            waiter.retrying(Retry::SelectInterrupted, select_error);
            waiter.compute(&wait);
            continue;
        }
        if (selected == 0) return {LineStatus::TimedOut, count, 0, select_error};

        const char prev = count > 0 ? buf[count - 1] : '\0';
        const ssize_t got = take_line_bytes(sock, buf + count, capacity - count, prev, end);
        const int recv_error = errno;
        if (got < 0) {
            if (recv_error != EINTR) {
                return {LineStatus::RecvFailed, count, static_cast<int>(got), recv_error};
            }
            waiter.retrying(Retry::RecvInterrupted, recv_error);
            waiter.compute(&wait);
            continue;
        }
        if (got == 0) {
            if (++closed > kClosedPolls) return {LineStatus::PeerClosed, count, 0, recv_error};
            waiter.retrying(Retry::PeerClosed, recv_error);
            waiter.compute(&wait);
            continue;
        }
        closed = 0;
        count += static_cast<size_t>(got);
        if (line_ended(buf, count, end)) break;
    }
    return {LineStatus::Done, count, 0, 0};
}

}  // namespace kemail::net
