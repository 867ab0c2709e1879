// One TLS client connection over a connected TCP socket, for SMTP (STARTTLS,
// SMTPS) and POP3 (STLS, POP3S). It offers what the plain transports use of
// a socket: receive with or without peeking, send in full, and whether data
// is already waiting, so that the line readers and their time-outs work the
// same over TLS. The socket stays the caller's; the session only borrows it.
//
// Failures come back the way socket calls report them: -1 with an errno
// (ETIMEDOUT when a wait ran out, ECONNRESET for a broken TLS stream, EIO
// for any other TLS failure), 0 from receive for a closed connection.
#pragma once

#include "tls/openssl_api.h"

#include <sys/types.h>

#include <cstddef>

namespace kemail::tls {

struct TlsSettings {
    const char* server_name = nullptr;  // verified, and sent as SNI unless an address
    bool verify = true;                 // chain and name; off: encrypt only
    const char* ca_file = nullptr;      // null or empty: the system's trust store
};

// A description of an established session for the mail log.
struct TlsInfo {
    char version[32] = "";
    char cipher[96] = "";
    bool verified = false;
};

class TlsSession {
public:
    TlsSession() = default;
    ~TlsSession();
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    // Handshakes over `fd` within `seconds`. Returns 0, or -1 with a short
    // reason in reason[size] ("libssl.so.3 not found", "certificate verify
    // failed: ...", "handshake failed: ...") and errno set.
    int start(int fd, const TlsSettings& settings, unsigned seconds, char* reason,
              size_t size) noexcept;

    // Plain text that can be received without waiting on the socket.
    bool pending() const noexcept;

    // Receives up to `length` bytes, waiting at most `seconds` for the
    // first; with peek the bytes stay to be received again. Returns the
    // count, 0 when the peer closed, or -1 with errno.
    ssize_t receive(void* buffer, size_t length, bool peek, unsigned seconds) noexcept;

    // Sends all `length` bytes within `seconds`. Returns length or -1.
    // Short writes are gathered (up to one record's worth) and leave with
    // the next receive, flush() or finish(): a protocol writes its commands
    // and data in small pieces, and each write of its own would cost a TLS
    // record and a system call. A failure to send gathered bytes is
    // reported by the call that sends them, and by every send and receive
    // after it.
    ssize_t send(const void* data, size_t length, unsigned seconds) noexcept;

    // Sends what send() has gathered within `seconds`. 0, or -1 with errno.
    int flush(unsigned seconds) noexcept;
    bool has_output() const noexcept { return out_length_ > 0; }

    // Sends what is gathered if it can go without waiting, and says goodbye
    // (close_notify) without waiting for the answer.
    void finish() noexcept;

    const TlsInfo& info() const noexcept { return info_; }

    // How long a receive or send over the session may wait: the seconds the
    // protocol's clock has left when the call begins (its phase time-out
    // for SMTP, the reply time-out for POP3). Without one, 60 seconds.
    using Clock = unsigned (*)();
    void set_clock(Clock clock) noexcept { clock_ = clock; }
    unsigned time_left() const noexcept { return clock_ != nullptr ? clock_() : 60; }

private:
    int wait_for(int ssl_error, unsigned seconds) noexcept;
    int write_all(const char* bytes, size_t length, unsigned seconds) noexcept;
    void describe_failure(const char* what, char* reason, size_t size) noexcept;

    const OpenSslApi* api_ = nullptr;
    SSL_CTX* context_ = nullptr;
    SSL* ssl_ = nullptr;
    int fd_ = -1;
    Clock clock_ = nullptr;
    TlsInfo info_;
    // Plain text read from the TLS stream but not yet received: one record.
    static constexpr size_t kBufferSize = 16384;
    char buffer_[kBufferSize];
    size_t buffered_ = 0;
    size_t offset_ = 0;
    // Bytes given to send() and not yet written; the errno of a failed
    // write, after which the session carries nothing more.
    char out_[kBufferSize];
    size_t out_length_ = 0;
    int broken_ = 0;
};

}  // namespace kemail::tls
