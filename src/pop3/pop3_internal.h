// The POP3 client used for POP before SMTP: resolve and connect, read the
// greeting, USER and PASS, STAT, QUIT (RFC 1939 commands only), each command
// one exchange with a one-line reply ("+OK" and more than three bytes is
// positive). Every helper traces to the handle it is given and stores the
// failing call's errno (or the resolver's error) in *err, 0 when there is
// none. Failures: -1 a system call failed or the peer closed, -17 the reply
// time-out (g_ulPopTimeOut) ran out, -11 not resolved, -2 not connected,
// -2/-3/-4/-5/-8 greeting/USER/PASS/STAT/QUIT refused (the server's line is
// copied to the caller's reply buffer).
//
// Deliberate oddities, each labelled as kept where it lives: the PASS line
// is traced in clear (only the mail log masks it); a literal or looked-up
// 255.255.255.255 counts as an unknown host (unlike SMTP, which looks the
// literal up and fails later); the Pop3_0c110..Pop3_0c170 codes have five
// characters after the underscore.
#pragma once

#include "kemail.h"

#include <ctime>

#include <netinet/in.h>
#include <sys/time.h>

namespace kemail {

// Every reply line is read into a buffer of this size: at most 1027 bytes
// and a NUL.
constexpr int kPop3LineSize = 1028;

// Resolves a dotted address or a host name (at most 5 attempts, 1 s apart,
// while the resolver answers TRY_AGAIN). Returns the IPv4 address in network
// order, or INADDR_NONE ((in_addr_t)-1) on failure: "255.255.255.255" fails
// as an unknown host (HOST_NOT_FOUND in *err).
in_addr_t Pop3_GetAddress(const char* server, int* err, TraceHandle* trace);

// Sends all length bytes (no time-out). Returns length, or -1.
int Pop3_Send(int sock, const char* bytes, int length, int* err, TraceHandle* trace);

// Reads one line, up to and including LF or until size - 1 bytes are stored,
// and NUL-terminates it; nothing after the LF is taken from the socket. Each
// silence is bounded by g_ulPopTimeOut seconds. Returns the byte count, -1
// (system error or the peer closed) or -17 (time-out). On failure buf is not
// terminated.
int Pop3_RecvLine(int sock, char* buf, int size, int* err, TraceHandle* trace);

// Reads one reply line and classifies it: 1 positive ("+OK" and more than
// three bytes), 2 anything else; -1 or -17 as Pop3_RecvLine.
int Pop3_RecvReply(int sock, char* buf, int size, int* err, TraceHandle* trace);

// Sets *wait to what remains of timeout seconds since *start (0 when used
// up); moves *start to now when the clock went back.
void Pop3_SetWait(struct timeval* wait, time_t* start, unsigned int timeout, TraceHandle* trace);

// A command to send: `length` bytes (-1: it did not fit its buffer and is
// refused unsent), logged as `logged` when that is given. No bytes: the step
// only reads (the greeting).
struct Pop3Command {
    const char* bytes = nullptr;
    int length = 0;
    const char* logged = nullptr;
};

// The trace codes of one step; codes left null are not written.
struct Pop3Codes {
    const char* before = nullptr;  // level 2, before the command is sent
    // Level 0 when the command was not sent: the result word -1, or the
    // command's text.
    const char* not_sent = nullptr;
    bool not_sent_shows_command = false;
    const char* sent = nullptr;  // level 2, after the command is logged
    // Level 0 when no reply was read: the result word, or the line so far.
    const char* no_reply = nullptr;
    bool no_reply_shows_line = false;
    const char* accepted = nullptr;  // level 1
    const char* refused = nullptr;   // level 0 with the line
    int refused_result = 0;
};

// One step: sends the command (if any), logs it as sent, reads the one-line
// reply, logs it as received. Returns 0 when positive; codes.refused_result
// when refused, the line then copied into reply_out (KEMAIL_MESSAGE_SIZE
// bytes, may be null); -1 when the command was not sent; the read's result
// (-1 or -17) when no reply came. err may be null.
int pop3_exchange(int sock, const Pop3Command& command, const Pop3Codes& codes, char* reply_out,
                  int* err, TraceHandle* trace);

// A step between the greeting and USER (STLS, when POP_TLS asks for it):
// returns 0 to go on, or the log-in's result.
struct Pop3AfterGreeting {
    int (*step)(int sock, void* context, char* reply, int* err, TraceHandle* trace) = nullptr;
    void* context = nullptr;
};

// Pop3_Login, with the step after the greeting.
int pop3_login(int sock, const char* user, const char* password, char* reply, int* err,
               TraceHandle* trace, const Pop3AfterGreeting& after_greeting);

// TLS could not be established (POP_TLS): the reason is in the reply buffer.
constexpr int kPop3TlsFailed = -20;

// Starts TLS on a POP3 connection: with stls, STLS first (after the
// greeting); without it, the handshake at once (POP3S). server names the
// peer to verify unless TLS_SERVER_NAME gives another; TLS_VERIFY and
// TLS_CA_FILE apply as to SMTP. Returns 0; kPop3TlsFailed with the reason in
// reply (KEMAIL_MESSAGE_SIZE bytes); or -1/-17 when STLS got no reply.
int pop3_start_tls(int sock, const char* server, bool stls, char* reply, int* err,
                   TraceHandle* trace);

}  // namespace kemail
