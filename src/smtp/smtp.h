// The SMTP session's internal API: the exchange every command goes through,
// bounded command formatting, reply text that is safe to log, and the
// internal result codes.
//
// The session speaks plain SMTP over one IPv4 TCP socket: resolve and
// connect, greeting, EHLO (HELO when refused), AUTH, MAIL/RCPT/DATA, RSET,
// QUIT. Every command is one exchange (send, log, read the whole reply, log,
// judge its first character); a failure returns the transport's negative
// result (-3 send, -4 receive, -6 time-out) with errno in the error word, a
// refusal the command's own code (-21..-28, or 3 for a refused AUTH
// mechanism), and the socket is always left open for the driver.
//
// Deliberate oddities, each labelled as kept where it lives: the trace gets
// the AUTH strings and the password-bearing responses at level 2 (only the
// mail log masks them); CRAM-MD5 reuses two PLAIN trace codes; every EHLO
// continuation line restarts the phase clock; a literal 255.255.255.255 is
// looked up as a name and then fails as unresolved.
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
// TLS was asked for (key TLS) and could not be established; the reason is in
// tls_failure_reason(). Nothing after EHLO has been sent in clear. The
// driver reports it as the public -30; the internal -30 stays what it was
// (an internal failure), so this code lies apart from the designed ones.
constexpr int kTlsFailed = -40;

// Length of the text in a reply buffer: a line that filled the buffer has no
// NUL, so the search stops at the buffer's end.
size_t reply_length(const char* buf, size_t size = KEMAIL_RECV_BUF_SIZE);

// A NUL-terminated copy of a reply buffer, for the mail log and the traces.
struct ReplyText {
    explicit ReplyText(const char* buf, size_t size = KEMAIL_RECV_BUF_SIZE);
    char text[KEMAIL_RECV_BUF_SIZE + 1];
    size_t length;
};

// Formats a command line into s_szSendBuf; its length, or -1 (and an empty
// buffer) when it would not fit whole: a cut command line would lose its
// CR LF or name another mailbox.
int format_command(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes the last reply in s_szRecvBuf to the mail log as received and traces
// it at level 2 under the given code.
void log_reply(const char* trace_code);

// The trace codes and the judgement of one command's exchange. Codes left
// null are not written.
struct ExchangeCodes {
    // Restart the phase clock right before sending (AUTH steps, HELO, RSET);
    // the other commands start their phase themselves.
    bool restarts_clock = false;
    // Level 0 with the error word when the line could not be sent.
    const char* not_sent = nullptr;
    // The line as sent: sent_length bytes of it, or its text when 0.
    const char* sent = nullptr;
    unsigned sent_level = 2;
    size_t sent_length = 0;
    // Level 0 with the error word when no reply could be read. Null with a
    // reply code: a missing reply is no failure (QUIT).
    const char* no_reply = nullptr;
    // Level 2 with the reply. Null: the reply is not read here (EHLO, whose
    // reply SMTP_readEhloReply reads line by line).
    const char* reply = nullptr;
    // The first character of an accepted reply; '\0' leaves it unjudged.
    char expect = '\0';
    const char* accepted = nullptr;  // level 1
    const char* refused = nullptr;
    unsigned refused_level = 0;
    bool refused_word = false;  // the refusal trace carries the error word (0)
    int refused_result = 0;
};

// The exchange every SMTP command goes through: sends `length` bytes of
// s_szSendBuf, writes `logged` (the line itself when null; a text that hides
// the password otherwise) to the mail log as sent, reads the whole reply into
// s_szRecvBuf, logs it as received and judges its first character. Returns 0
// when accepted (or not judged), codes.refused_result when refused (the
// error word then 0), or the transport's negative result.
int exchange(int sock, int length, const ExchangeCodes& codes, unsigned int* pulErr,
             const char* logged = nullptr);

// The rest of an exchange once its line (in s_szSendBuf) has gone out:
// logged as sent, reply read, logged and judged, with exchange's results.
int exchange_after_send(int sock, const ExchangeCodes& codes, unsigned int* pulErr,
                        const char* logged = nullptr);

// Sends `length` bytes as the designed transfer loop sends a file: in
// chunks of `chunk` bytes, each one's phase clock restarted (SMTP_SetStartTime)
// and each one traced whole (smtp0e00) before it is due, each with its own
// retry counts, but handed to the socket in as few writes as it will take.
// Results, error words, mail-log lines and trace records are those of
// calling SMTP_SetStartTime and SMTP_send once per chunk; *last_chunk gets the
// offset of the last chunk begun (the one that failed, on a failure).
int send_in_chunks(int sock, const char* data, size_t length, size_t chunk, unsigned int* pulErr,
                   size_t* last_chunk);

// How a write that did not take every byte ended: SMTP_send's result and
// what it logs and traces for it.
struct SendFailure {
    int result = 0;              // kSendFailed or kTimedOut; 0 when all went out
    int call_result = 0;         // the failing send's own result
    int error = 0;               // its errno
    bool sets_word = false;      // the error word takes `error` (not after a short send)
    const char* code = nullptr;  // "smtp0e05", "smtp0e03", "smtp0e10"; none for a time-out
};

// Writes the bytes with SMTP_send's rules (short sends go on with a time-out
// check, six zero-length or six interrupted sends fail) but without its
// trace and log; the count written, all of it unless *failure says why not.
size_t write_quietly(int sock, const char* data, size_t length, SendFailure* failure);

// What SMTP_send writes to the mail log and trace for the failure; stores
// the error word as it would and returns its result.
int report_send_failure(const SendFailure& failure, unsigned int* pulErr);

// True when the session should pipeline its transaction commands: the
// PIPELINING setting is on and the last EHLO reply announced it.
bool pipelining_wanted() noexcept;

// Which command of the driver's sequence a pipelined group's result is for.
enum class GroupStage { EndOfData, Mail, Data };

// What a pipelined group carries before its MAIL FROM: nothing (the
// session's first transaction), or the end-of-data mark of the piece before
// and the RSET that ends it (RFC 2920 lets the end of a message's transfer
// lead the group that starts the next transaction).
enum class GroupLead { None, EndOfDataAndRset };

// Returned by mail_group when the commands cannot be formed as a group (a
// line too long for its buffer): nothing was sent or traced.
constexpr int kNotGrouped = 1;

// The lead, MAIL FROM, one RCPT TO per piece of the list and DATA, written
// together (RFC 2920), their replies then read, logged and judged one by one
// in order, with the records SMTP_endData, SMTP_RSET, SMTP_MAIL and
// SMTP_startData write (the RSET's result is not judged, as the driver does
// not judge it). 0 when DATA got its go-ahead; otherwise the result of the
// first command that failed or was refused, *stage telling whether
// SMTP_endData, SMTP_MAIL or SMTP_startData would have given it. After a
// failure the replies of the later commands stay unread and nothing more may
// be sent in the session: the server may be waiting for the message, which
// must then never come.
int mail_group(int sock, GroupLead lead, const char* from, const char* to, unsigned int* pulErr,
               GroupStage* stage);

// Service extensions (RFC 1869) the last EHLO reply announced, besides AUTH
// whose line is kept whole for the mechanisms. Only the settings beyond the
// designed dialogue look at them.
enum EhloExtension : unsigned {
    kExtStartTls = 1u << 0,
    kExtPipelining = 1u << 1,
};
unsigned ehlo_extensions() noexcept;

// ---- TLS (key TLS; nothing here runs without it) ---------------------------

// Remembers the server argument of the connection being made, the name TLS
// verifies unless TLS_SERVER_NAME gives another, and forgets the reason of
// an earlier failure.
void remember_server(const char* name) noexcept;

// True when the key TLS asks for SMTPS (TLS from the first byte).
bool smtps_wanted() noexcept;
// True when the key TLS asks for STARTTLS.
bool starttls_wanted() noexcept;

// SMTPS: the handshake right after connect, within the connection phase.
// 0, or kTlsFailed (errno in *pulErr when there is one).
int smtps_handshake(int sock, unsigned int* pulErr) noexcept;

// STARTTLS after the first EHLO (ehlo_result: SMTP_readEhloReply's 0, or 1
// when EHLO was refused): STARTTLS, 220, the handshake, and EHLO again with
// a fresh capability buffer. Returns what SMTP_readEhloReply returned for
// the second EHLO (0 or 1), kTlsFailed, or the transport's negative result.
int starttls(int sock, const char* host, int ehlo_result, char* capability,
             unsigned int* pulErr) noexcept;

// Why the last TLS step failed ("STARTTLS not offered", "certificate verify
// failed: ...", "libssl.so.3 not found"...); empty when none did.
const char* tls_failure_reason() noexcept;

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
