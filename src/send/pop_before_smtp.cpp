#include "send/pop_before_smtp.h"

#include "log/trace_record.h"
#include "net/secure.h"
#include "options/options.h"
#include "pop3/pop3_internal.h"
#include "send/send_internal.h"
#include "util/unique_fd.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <sys/select.h>
#include <unistd.h>

namespace kemail {

namespace {

constexpr size_t kMaxUser = 64;
constexpr size_t kMaxPassword = 64;
constexpr size_t kMaxHost = 256;
constexpr int32_t kMaxWaitMs = 3600000;
constexpr unsigned kMinPopTimeOut = 60;
constexpr unsigned kMaxPopTimeOut = 3600;
constexpr unsigned kDefaultPopTimeOut = 60;

// The socket initialiser shared in form with the SMTP session: it only
// clears the error slot, and so cannot fail today.
int init_socket(int* slot) {
    trace(g_trace, 1, "INITSOCK0000");
    *slot = 0;
    trace(g_trace, 1, "INITSOCKFFFF");
    return 0;
}

// Result of a failed Pop3_Login or Pop3_STAT: a time-out, a system error on
// the connection, or the server's refusal (its reply is in message already).
int session_failure(int result, int slot, char* message, const char* timeout_code,
                    const char* system_code, const char* refused_code) {
    if (result == -17) {
        trace(g_trace, 0, timeout_code);
        return KEMAIL_E_POP_TIMEOUT;
    }
    if (result == -1) {
        trace_word(g_trace, 0, system_code, static_cast<uint32_t>(slot));
        put_number(message, static_cast<unsigned>(slot));
        return KEMAIL_E_POP_SYSTEM;
    }
    trace_text(g_trace, 0, refused_code, message);
    return KEMAIL_E_POP_REFUSED;
}

// Sleeps for a whole timeval, resuming after signals.
void sleep_normalised(struct timeval wait) {
    while (::select(0, nullptr, nullptr, nullptr, &wait) < 0 && errno == EINTR) {
    }
}

// The wait after the session: select with no descriptors, 0 seconds and the
// whole wait in the microseconds field, unnormalised, as this step has always
// done. Linux accepts microseconds above 999999 and waits the whole time, but
// glibc's wrapper keeps the microseconds in 32 bits and answers EINVAL at
// once for more than 2147483647 of them (waits above 2147483 ms, still within
// the accepted 0..3600000): then wait the same time in normalised form, so no
// accepted wait is ever cut short. After a signal Linux leaves the time still
// to wait in the timeval, so the call is simply repeated.
void wait_after_session(int32_t wait_ms) {
    struct timeval wait;
    wait.tv_sec = 0;
    wait.tv_usec = static_cast<suseconds_t>(wait_ms) * 1000;
    for (;;) {
        if (::select(0, nullptr, nullptr, nullptr, &wait) == 0) return;
        if (errno == EINTR) continue;
        if (errno != EINVAL) return;
        struct timeval normalised;
        normalised.tv_sec = wait_ms / 1000;
        normalised.tv_usec = static_cast<suseconds_t>(wait_ms % 1000) * 1000;
        sleep_normalised(normalised);
        return;
    }
}

constexpr unsigned kPop3sPort = 995;

// Ends the connection's TLS session, if any, right before the socket closes.
struct TlsEnding {
    ~TlsEnding() { net::end_tls(sock.get()); }
    const UniqueFd& sock;
};

// STLS after the greeting, for the server of the settings record.
int stls_after_greeting(int sock, void* context, char* reply, int* err, TraceHandle* trace) {
    const auto* pop = static_cast<const PopBeforeSmtpInfo*>(context);
    return pop3_start_tls(sock, pop->szHost, true, reply, err, trace);
}

}  // namespace

int pop_before_smtp(const MailAuthInfo* auth, char* message) {
    trace(g_trace, 1, "BEFORE0000");
    const PopBeforeSmtpInfo* pop =
        auth ? static_cast<const PopBeforeSmtpInfo*>(auth->pSettings) : nullptr;
    if (!pop) return KEMAIL_E_ARGUMENT;
    // Kept: the whole settings record, password included, is traced at
    // level 0 (test PopBeforeSmtp.AGoodSessionReturnsZeroAndTracesEveryStep).
    trace_data(g_trace, 0, "BEFORE0010", pop, sizeof *pop);

    // strnlen over the whole field: an unterminated field counts as too long.
    const size_t user = ::strnlen(pop->szUser, sizeof pop->szUser);
    if (user < 1 || user > kMaxUser) {
        trace_word(g_trace, 0, "BEFORE0020", static_cast<uint32_t>(user));
        return KEMAIL_E_ARGUMENT;
    }
    const size_t password = ::strnlen(pop->szPassword, sizeof pop->szPassword);
    if (password > kMaxPassword) {
        trace_word(g_trace, 0, "BEFORE0030", static_cast<uint32_t>(password));
        return KEMAIL_E_ARGUMENT;
    }
    const size_t host = ::strnlen(pop->szHost, sizeof pop->szHost);
    if (host < 1 || host > kMaxHost) {
        trace_word(g_trace, 0, "BEFORE0040", static_cast<uint32_t>(host));
        return KEMAIL_E_ARGUMENT;
    }
    if (pop->lWait < 0 || pop->lWait > kMaxWaitMs) {
        trace_word(g_trace, 0, "BEFORE0050", static_cast<uint32_t>(pop->lWait));
        return KEMAIL_E_ARGUMENT;
    }

    trace_data(g_trace, 2, "BEFORE0060", &pop->usTimeOut, sizeof pop->usTimeOut);
    unsigned timeout = pop->usTimeOut;
    if (timeout < kMinPopTimeOut || timeout > kMaxPopTimeOut) timeout = kDefaultPopTimeOut;
    trace_word(g_trace, 2, "BEFORE0070", timeout);
    Pop3_SetTimeOut(timeout, g_trace);

    int slot = 0;
    trace(g_trace, 2, "BEFORE0100");
    const int init = init_socket(&slot);
    if (init != 0) {
        trace_word(g_trace, 0, "BEFORE0110", static_cast<uint32_t>(init));
        trace_word(g_trace, 0, "BEFORE0120", static_cast<uint32_t>(slot));
        put_number(message, static_cast<unsigned>(slot));
        return KEMAIL_E_POP_SYSTEM;
    }

    const options::PopTls pop_tls = options::current().pop_tls;
    trace(g_trace, 2, "BEFORE0200");
    // Closed on every way out, after the session's last trace.
    const unsigned port =
        pop->ulPort == 0 && pop_tls == options::PopTls::Pop3s ? kPop3sPort : pop->ulPort;
    UniqueFd sock(Pop3_Connect(pop->szHost, port, &slot, g_trace));
    const TlsEnding tls_ending{sock};
    if (!sock.valid()) {
        trace_word(g_trace, 0, "BEFORE0210", static_cast<uint32_t>(slot));
        put_number(message, static_cast<unsigned>(slot));
        return KEMAIL_E_POP_UNREACHABLE;
    }
    if (pop_tls == options::PopTls::Pop3s &&
        pop3_start_tls(sock.get(), pop->szHost, false, message, &slot, g_trace) != 0) {
        trace_text(g_trace, 0, "BEFORE0220", message);
        return KEMAIL_E_POP_UNREACHABLE;
    }

    trace(g_trace, 2, "BEFORE0300");
    Pop3AfterGreeting after_greeting;
    if (pop_tls == options::PopTls::Stls) {
        after_greeting.step = stls_after_greeting;
        after_greeting.context = const_cast<PopBeforeSmtpInfo*>(pop);
    }
    int result = pop3_login(sock.get(), pop->szUser, pop->szPassword, message, &slot, g_trace,
                            after_greeting);
    if (result == kPop3TlsFailed) {
        trace_text(g_trace, 0, "BEFORE0340", message);
        return KEMAIL_E_POP_UNREACHABLE;
    }
    if (result < 0) {
        trace_word(g_trace, 0, "BEFORE0310", static_cast<uint32_t>(result));
        return session_failure(result, slot, message, "BEFORE0315", "BEFORE0330", "BEFORE0320");
    }

    trace(g_trace, 2, "BEFORE0400");
    result = Pop3_STAT(sock.get(), message, &slot, g_trace);
    if (result < 0) {
        trace_word(g_trace, 0, "BEFORE0410", static_cast<uint32_t>(result));
        return session_failure(result, slot, message, "BEFORE0415", "BEFORE0430", "BEFORE0420");
    }

    trace(g_trace, 2, "BEFORE0500");
    result = Pop3_Logout(sock.get(), message, &slot, g_trace);
    if (result < 0) {
        // The mail still goes out: a server that mishandles QUIT has already
        // recorded the log-in.
        trace_text(g_trace, 0, "BEFORE0505", message);
        trace_word(g_trace, 0, "BEFORE0506", static_cast<uint32_t>(slot));
        message[0] = '\0';
    }
    trace_word(g_trace, 2, "BEFORE0510", static_cast<uint32_t>(result));
    net::end_tls(sock.get());
    sock.reset();  // the connection ends before the wait

    wait_after_session(pop->lWait);
    return 0;
}

}  // namespace kemail
