// The byte layer under every SMTP command: write a whole buffer, read one
// CR LF line with the phase time-out, read a whole (multi-line) reply.
#include "kemail.h"
#include "log/trace_record.h"
#include "smtp/smtp.h"
#include "smtp/smtp_buffers.h"

#include <cerrno>
#include <cstring>

#include <sys/select.h>
#include <sys/socket.h>

using kemail::trace;
using kemail::trace_data;
using kemail::trace_word;
using namespace kemail::smtp;

namespace {

// Tries after which a run of interrupted or zero-length calls counts as a
// failure of the connection.
constexpr int kMaxRetries = 5;

// Takes the bytes that are waiting on the socket, but never more than up to
// and including the first CR LF: the rest belongs to the next line or reply
// and must stay in the socket. `prev` is the byte read just before `dst`
// (0 at the start of the line) so that a CR LF split across two arrivals is
// seen. Returns recv's result: the byte count, 0 at end of stream, or -1.
ssize_t take_line_bytes(int sock, char* dst, size_t room, char prev) {
    const ssize_t peeked = recv(sock, dst, room, MSG_PEEK);
    if (peeked <= 0) return peeked;
    size_t want = static_cast<size_t>(peeked);
    const char* from = dst;
    const char* const end = dst + peeked;
    while (from < end) {
        const char* lf = static_cast<const char*>(std::memchr(from, '\n', end - from));
        if (!lf) break;
        const char before = lf > dst ? lf[-1] : prev;
        if (before == '\r') {
            want = static_cast<size_t>(lf - dst) + 1;
            break;
        }
        from = lf + 1;
    }
    const ssize_t got = recv(sock, dst, want, 0);
    // The peek wrote bytes that stay in the socket; the buffer behind the
    // line keeps its zeros, as if they had never been looked at.
    const size_t kept = got > 0 ? static_cast<size_t>(got) : 0;
    std::memset(dst + kept, 0, static_cast<size_t>(peeked) - kept);
    return got;
}

}  // namespace

extern "C" {

KEMAIL_API int SMTP_send(int lSock, const char* pData, int lLength, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace_data(g_trace, 0, "smtp0e00", pData, lLength > 0 ? static_cast<size_t>(lLength) : 0);
    if (lLength < 0 || (!pData && lLength > 0)) {
        *pulErr = EINVAL;
        MailLogSysErrWrite(g_pLogHandle, "send", -1, EINVAL, nullptr);
        trace_word(g_trace, 0, "smtp0e05", EINVAL);
        return kSendFailed;
    }

    int sent = 0;
    int zero_sends = 0;
    int interrupted = 0;
    for (;;) {
        // MSG_NOSIGNAL: a peer that has gone away must give EPIPE here, not
        // a SIGPIPE that would end the calling agent's process.
        const ssize_t result = send(lSock, pData + sent, static_cast<size_t>(lLength - sent),
                                    MSG_NOSIGNAL);
        if (result > 0) {
            sent += static_cast<int>(result);
            if (sent >= lLength) {
                *pulErr = 0;
                return 0;
            }
            const int over = SMTP_CheckOverTimeOut();
            if (over < 0) {
                MailLogTimeOutWrite(g_pLogHandle, static_cast<int>(g_ulTimeOut), 1, "send");
                return over;
            }
            continue;
        }
        const int error = errno;
        *pulErr = static_cast<unsigned int>(error);
        if (result == 0) {
            const int over = SMTP_CheckOverTimeOut();
            if (over < 0) {
                MailLogTimeOutWrite(g_pLogHandle, static_cast<int>(g_ulTimeOut), 1, "send");
                return over;
            }
            if (++zero_sends <= kMaxRetries) continue;
            MailLogSysErrWrite(g_pLogHandle, "send", 0, static_cast<long>(*pulErr), nullptr);
            trace(g_trace, 0, "smtp0e10");
            return kSendFailed;
        }
        if (error != EINTR) {
            MailLogSysErrWrite(g_pLogHandle, "send", static_cast<int>(result), error, nullptr);
            trace_word(g_trace, 0, "smtp0e05", static_cast<uint32_t>(error));
            return kSendFailed;
        }
        if (++interrupted <= kMaxRetries) continue;
        MailLogSysErrWrite(g_pLogHandle, "send", static_cast<int>(result), error, nullptr);
        trace_word(g_trace, 0, "smtp0e03", static_cast<uint32_t>(error));
        return kSendFailed;
    }
}

// Reads one line, CR LF included, or as many bytes as fill the buffer (then
// without a terminating NUL, on purpose: the rest of the line comes as the
// next line). Every wait may take the whole time left when the line began;
// the remainder is recomputed only after an interruption or an empty read.
KEMAIL_API int SMTP_recv(int lSock, char* pBuf, int lSize, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    if (lSize > 0) std::memset(pBuf, 0, static_cast<size_t>(lSize));
    int count = 0;
    int zero_reads = 0;

    if (lSock < 0 || lSock >= FD_SETSIZE) {
        *pulErr = EBADF;
        MailLogSysErrWrite(g_pLogHandle, "select", -1, EBADF, nullptr);
        trace_word(g_trace, 0, "smtp0f02", EBADF);
        return kRecvFailed;
    }
    fd_set saved_set;
    FD_ZERO(&saved_set);
    FD_SET(lSock, &saved_set);
    struct timeval saved_wait;
    SMTP_GetSelectTimeOut(&saved_wait);

    while (count < lSize) {
        fd_set ready = saved_set;
        struct timeval wait = saved_wait;
        const int selected = select(lSock + 1, &ready, nullptr, nullptr, &wait);
        const int select_error = errno;
        *pulErr = static_cast<unsigned int>(select_error);
        if (selected < 0) {
            if (select_error != EINTR) {
                MailLogSysErrWrite(g_pLogHandle, "select", selected, select_error, nullptr);
                trace_word(g_trace, 0, "smtp0f02", static_cast<uint32_t>(select_error));
                return kRecvFailed;
            }
            trace_word(g_trace, 2, "smtp0f01", static_cast<uint32_t>(select_error));
            SMTP_GetSelectTimeOut(&saved_wait);
            continue;
        }
        if (selected == 0) {
            MailLogTimeOutWrite(g_pLogHandle, static_cast<int>(g_ulTimeOut), 1, "recv");
            trace_word(g_trace, 0, "smtp0f03", *pulErr);
            return kTimedOut;
        }

        const char prev = count > 0 ? pBuf[count - 1] : '\0';
        const ssize_t got =
            take_line_bytes(lSock, pBuf + count, static_cast<size_t>(lSize - count), prev);
        const int recv_error = errno;
        if (got < 0) {
            *pulErr = static_cast<unsigned int>(recv_error);
            if (recv_error != EINTR) {
                MailLogSysErrWrite(g_pLogHandle, "recv", static_cast<int>(got), recv_error,
                                   nullptr);
                trace_word(g_trace, 0, "smtp0f05", static_cast<uint32_t>(recv_error));
                return kRecvFailed;
            }
            trace_word(g_trace, 2, "smtp0f04", static_cast<uint32_t>(recv_error));
            SMTP_GetSelectTimeOut(&saved_wait);
            continue;
        }
        if (got == 0) {
            *pulErr = static_cast<unsigned int>(recv_error);
            if (++zero_reads > kMaxRetries) {
                trace(g_trace, 0, "smtp0f10");
                MailLogSysErrWrite(g_pLogHandle, "recv", 0, recv_error, nullptr);
                return kRecvFailed;
            }
            trace(g_trace, 2, "smtp0f20");
            SMTP_GetSelectTimeOut(&saved_wait);
            continue;
        }
        zero_reads = 0;
        count += static_cast<int>(got);
        if (count > 1 && pBuf[count - 2] == '\r' && pBuf[count - 1] == '\n') break;
    }
    *pulErr = 0;
    return 0;
}

// A reply's lines are read one after the other into the start of the buffer;
// a '-' after the code marks a continuation, so the last line stays.
KEMAIL_API int SMTP_returnMessage(int lSock, char* pBuf, int lSize, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    *pulErr = 0;
    for (;;) {
        const int result = SMTP_recv(lSock, pBuf, lSize, pulErr);
        if (result != 0) {
            trace_word(g_trace, 0, "smtp0d05", *pulErr);
            return result;
        }
        if (lSize < 4 || pBuf[3] != '-') return 0;
    }
}

KEMAIL_API void SMTP_GetSmtpSvResponce(char* pszDest) noexcept {
    trace(g_trace, 1, "GETSMTP0000");
    if (pszDest) {
        // What strncpy of 255 characters and a NUL at index 255 give.
        constexpr size_t kKept = 255;
        const size_t length = strnlen(s_szRecvBuf, kKept);
        std::memcpy(pszDest, s_szRecvBuf, length);
        std::memset(pszDest + length, 0, kKept + 1 - length);
    }
    trace(g_trace, 1, "GETSMTPFFFF");
}

}  // extern "C"
