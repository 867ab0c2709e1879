// The bytes of a connected session socket: plain TCP, or the TLS session
// that was started on it. Every read and write of the SMTP session and the
// POP3 client goes through here, so that the layers above never ask which.
#pragma once

#include <cstddef>

#include <sys/time.h>
#include <sys/types.h>

namespace kemail::net {

// Like send(MSG_NOSIGNAL): the count written (possibly short), or -1 with
// errno. A peer that has gone away gives EPIPE, never SIGPIPE. A TLS
// session may gather short writes until the next wait for an answer.
ssize_t stream_send(int sock, const char* data, size_t length);

// Like stream_send, but never held for ever by a peer that takes nothing:
// while the socket has no room, waits for it at most what compute_wait gives
// (asked only then, each time). Writes all of the data unless the wait runs
// out (or is interrupted): then the count written so far, or -1 (errno
// ETIMEDOUT, or EINTR) when nothing was, with *waited_out true after a wait
// that ran out.
ssize_t stream_send_bounded(int sock, const char* data, size_t length,
                            void (*compute_wait)(struct timeval*), bool* waited_out);

// Like recv with MSG_PEEK: the bytes waiting, left in place; 0 at end of
// stream, -1 with errno.
ssize_t stream_peek(int sock, char* buf, size_t length);

// Like recv: takes up to length bytes; 0 at end of stream, -1 with errno.
ssize_t stream_recv(int sock, char* buf, size_t length);

// True when bytes are already buffered above the socket (decrypted and not
// yet taken), so that a wait for the socket to become readable would miss
// them. Called before every such wait: a TLS session first sends what it
// has gathered of the writes (they may be the command the wait is for), and
// a failure to send them answers true, so that the read which follows
// reports it.
bool stream_buffered(int sock);

// Reading ahead on a socket in the clear, for a session whose replies come
// in groups (pipelined commands): while a ReadAhead is started on a socket,
// the calling thread's first read after a wait takes every byte that has
// arrived, and the lines after it are served from here without another
// wait or read. The bytes taken are the stream's next bytes for every later
// read, so nothing is lost or reordered; only the number of system calls
// changes. A TLS socket is read through its session as always. Stop it (or
// let it go out of scope) before the socket is closed: bytes not yet taken
// then go with the connection.
class ReadAhead {
public:
    ReadAhead() = default;
    ~ReadAhead() { stop(); }
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    void start(int sock) noexcept;
    void stop() noexcept;

    // The read-ahead started on sock by the calling thread, or null.
    static ReadAhead* on(int sock) noexcept;

    size_t waiting() const noexcept { return end_ - begin_; }
    // Like recv with and without MSG_PEEK, from the bytes taken ahead; when
    // none are left, one recv takes what has arrived.
    ssize_t peek(char* buf, size_t length) noexcept;
    ssize_t take(char* buf, size_t length) noexcept;

private:
    ssize_t fill() noexcept;

    int sock_ = -1;
    size_t begin_ = 0;
    size_t end_ = 0;
    char bytes_[4 * 1024];
};

}  // namespace kemail::net
