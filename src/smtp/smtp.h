// Helpers shared by the SMTP session's commands: bounded command formatting,
// reply text that is safe to log, and the internal result codes.
#pragma once

#include "kemail.h"
#include "smtp/smtp_buffers.h"

#include <cerrno>
#include <cstddef>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace kemail::smtp {

// Internal results of the session functions (the send driver maps them).
constexpr int kSendFailed = -3;
constexpr int kRecvFailed = -4;
constexpr int kTimedOut = -6;
constexpr int kHeloRefused = -21;
constexpr int kMailRefused = -22;
constexpr int kRcptRefused = -23;
constexpr int kDataRefused = -24;
constexpr int kMessageRefused = -25;
constexpr int kGreetingRefused = -26;
constexpr int kRsetRefused = -27;
// A command that cannot be formed within its buffer (an over-long address):
// refused here rather than sent cut, so that no mail goes to a mangled
// address. Outside -27..-21, so the driver reports it as an internal failure.
constexpr int kCommandTooLong = -28;
constexpr int kFileError = -32;

// Length of the text in a reply buffer: a line that filled the buffer has no
// NUL, so the search stops at the buffer's end.
size_t reply_length(const char* buf, size_t size = KEMAIL_RECV_BUF_SIZE);

// A NUL-terminated copy of a reply buffer, for the mail log and the traces.
struct ReplyText {
    explicit ReplyText(const char* buf, size_t size = KEMAIL_RECV_BUF_SIZE);
    char text[KEMAIL_RECV_BUF_SIZE + 1];
    size_t length;
};

// Formats a command line into s_szSendBuf; its length, or -1 when it would
// not fit whole (a cut command line would lose its CR LF).
int format_command(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes the last reply in s_szRecvBuf to the mail log as received and traces
// it at level 2 under the given code.
void log_reply(const char* trace_code);

// The command pattern's send step: sends `length` bytes of s_szSendBuf.
// On failure traces `not_sent_code` at level 0 with the error word.
int send_command(int sock, int length, const char* not_sent_code, unsigned int* pulErr);

// The command pattern's read step: reads a whole reply into s_szRecvBuf. On
// failure traces `no_reply_code` at level 0 with the error word.
int read_reply(int sock, const char* no_reply_code, unsigned int* pulErr);

// Holds message data back while it streams, so that it leaves in full
// segments although the session runs with TCP_NODELAY; removing the cork
// pushes out what is left. (Not a TCP socket: nothing happens.)
class CorkedStream {
public:
    explicit CorkedStream(int sock) : sock_(sock) { set(1); }
    ~CorkedStream() { set(0); }
    CorkedStream(const CorkedStream&) = delete;
    CorkedStream& operator=(const CorkedStream&) = delete;

private:
    void set(int on) {
        const int saved_errno = errno;
        setsockopt(sock_, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
        errno = saved_errno;
    }
    int sock_;
};

}  // namespace kemail::smtp
