// The byte layer under every SMTP command: write a whole buffer, read one
// CR LF line with the phase time-out, read a whole (multi-line) reply.
#include "kemail.h"
#include "log/trace_record.h"
#include "net/net.h"
#include "net/stream.h"
#include "smtp/smtp.h"
#include "smtp/smtp_buffers.h"
#include "util/util.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>

using kemail::trace;
using kemail::trace_data;
using kemail::trace_word;
using namespace kemail::smtp;

namespace {

// Tries after which a run of interrupted or zero-length sends counts as a
// failure of the connection.
constexpr int kMaxRetries = 5;

// The phase clock bounds every wait of the line reader; its retries are
// traced at level 2.
class PhaseWait final : public kemail::net::LineWait {
public:
    void compute(struct timeval* wait) override { SMTP_GetSelectTimeOut(wait); }
    void retrying(kemail::net::Retry event, int error) override {
        switch (event) {
            case kemail::net::Retry::SelectInterrupted:
                trace_word(g_trace, 2, "smtp0f01", static_cast<uint32_t>(error));
                break;
            case kemail::net::Retry::RecvInterrupted:
                trace_word(g_trace, 2, "smtp0f04", static_cast<uint32_t>(error));
                break;
            case kemail::net::Retry::PeerClosed: trace(g_trace, 2, "smtp0f20"); break;
        }
    }
};

// One write of the session: all of the data, unless the peer took nothing
// for the rest of the phase's time-out (its window and our buffer full).
ssize_t session_send(int sock, const char* data, size_t length, bool* waited_out) {
    return kemail::net::stream_send_bounded(sock, data, length, SMTP_GetSelectTimeOut, waited_out);
}

// The mail-log line of a send that ran out of its phase.
int send_timed_out(int over) {
    MailLogTimeOutWrite(g_pLogHandle, static_cast<int>(g_ulTimeOut), 1, "send");
    return over;
}

// The socket takes as much as it will of the whole rest at each write; what
// the designed loop would have done chunk by chunk is done as the write's
// progress passes each chunk's start: the chunk's clock restart and its
// trace record, and fresh retry counts. A write that ends inside a chunk is
// a short send of that chunk (time-out check); one that ends on a chunk's
// end completed it (none). With first_begun the caller has done the first
// chunk's part itself.
int write_in_chunks(int sock, const char* data, size_t length, size_t chunk, bool first_begun,
                    unsigned int* pulErr, size_t* last_chunk) {
    size_t sent = 0;                                               // bytes the socket took
    size_t begun_end = first_begun ? std::min(chunk, length) : 0;  // end of the last chunk begun
    int zero_sends = 0;
    int interrupted = 0;
    auto begin_chunk = [&] {
        const size_t start = begun_end;
        const size_t n = std::min(chunk, length - start);
        SMTP_SetStartTime();
        trace_data(g_trace, 0, "smtp0e00", data + start, n);
        *last_chunk = start;
        begun_end = start + n;
        zero_sends = 0;
        interrupted = 0;
    };
    for (;;) {
        if (sent == begun_end && sent < length) begin_chunk();
        bool waited_out = false;
        const ssize_t result = session_send(sock, data + sent, length - sent, &waited_out);
        if (result > 0) {
            sent += static_cast<size_t>(result);
            if (sent >= begun_end) *pulErr = 0;
            while (begun_end < sent) begin_chunk();
            if (sent == length) {
                *pulErr = 0;
                return 0;
            }
            if (waited_out) {
                *pulErr = ETIMEDOUT;
                return send_timed_out(kTimedOut);
            }
            if (sent < begun_end) {
                const int over = SMTP_CheckOverTimeOut();
                if (over < 0) return send_timed_out(over);
            }
            continue;
        }
        const int error = errno;
        *pulErr = static_cast<unsigned int>(error);
        if (waited_out) return send_timed_out(kTimedOut);
        if (result == 0) {
            const int over = SMTP_CheckOverTimeOut();
            if (over < 0) return send_timed_out(over);
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

}  // namespace

namespace kemail::smtp {

int send_in_chunks(int sock, const char* data, size_t length, size_t chunk, unsigned int* pulErr,
                   size_t* last_chunk) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    size_t last_scratch = 0;
    if (!last_chunk) last_chunk = &last_scratch;
    *last_chunk = 0;
    if (!data || length == 0) return 0;
    if (chunk == 0) chunk = length;
    return write_in_chunks(sock, data, length, chunk, false, pulErr, last_chunk);
}

size_t write_quietly(int sock, const char* data, size_t length, SendFailure* failure) {
    *failure = SendFailure{};
    size_t sent = 0;
    int zero_sends = 0;
    int interrupted = 0;
    while (sent < length) {
        bool waited_out = false;
        const ssize_t result = session_send(sock, data + sent, length - sent, &waited_out);
        if (waited_out) {
            if (result > 0) sent += static_cast<size_t>(result);
            failure->result = kTimedOut;
            failure->error = ETIMEDOUT;
            failure->sets_word = true;
            return sent;
        }
        if (result > 0) {
            sent += static_cast<size_t>(result);
            if (sent < length && SMTP_CheckOverTimeOut() < 0) {
                failure->result = kTimedOut;
                return sent;
            }
            continue;
        }
        const int error = errno;
        failure->call_result = static_cast<int>(result);
        failure->error = error;
        failure->sets_word = true;
        if (result == 0) {
            if (SMTP_CheckOverTimeOut() < 0) {
                failure->result = kTimedOut;
                return sent;
            }
            if (++zero_sends <= kMaxRetries) continue;
            failure->result = kSendFailed;
            failure->code = "smtp0e10";
            return sent;
        }
        if (error == EINTR && ++interrupted <= kMaxRetries) continue;
        failure->result = kSendFailed;
        failure->code = error == EINTR ? "smtp0e03" : "smtp0e05";
        return sent;
    }
    return sent;
}

int report_send_failure(const SendFailure& failure, unsigned int* pulErr) {
    if (failure.sets_word) *pulErr = static_cast<unsigned int>(failure.error);
    if (failure.result == kTimedOut) return send_timed_out(kTimedOut);
    MailLogSysErrWrite(g_pLogHandle, "send", failure.call_result, failure.error, nullptr);
    if (failure.call_result == 0) {
        trace(g_trace, 0, failure.code);
    } else {
        trace_word(g_trace, 0, failure.code, static_cast<uint32_t>(failure.error));
    }
    return failure.result;
}

}  // namespace kemail::smtp

extern "C" {

// Kept: every call traces all its bytes (smtp0e00) at level 0, data chunks
// included (test Transport.SendWritesEveryByteAndTracesThem).
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

    // Kept: a send of no bytes at all is a run of zero-length sends, so it
    // fails as one (test Transport.ASendOfNoBytesFailsAsZeroLengthSends).
    size_t last_chunk = 0;
    const size_t length = static_cast<size_t>(lLength);
    return write_in_chunks(lSock, pData, length, length, true, pulErr, &last_chunk);
}

// Reads one line, CR LF included, or as many bytes as fill the buffer.
// Kept: a line that fills the buffer leaves it without a terminating NUL; the
// rest of the line comes as the next line (test
// Transport.AFullLineWithoutCrLfFillsTheBufferWithoutNul). Every wait may
// take the whole time left when the line began; the remainder is recomputed
// only after an interruption or an empty read.
KEMAIL_API int SMTP_recv(int lSock, char* pBuf, int lSize, unsigned int* pulErr) noexcept {
    using kemail::net::LineStatus;
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    if (lSize > 0) std::memset(pBuf, 0, static_cast<size_t>(lSize));
    PhaseWait wait;
    const kemail::net::LineRead read = kemail::net::read_line(
        lSock, pBuf, lSize > 0 ? static_cast<size_t>(lSize) : 0, kemail::net::LineEnd::CrLf, wait);
    *pulErr = static_cast<unsigned int>(read.error);
    switch (read.status) {
        case LineStatus::Done: return 0;
        case LineStatus::SelectFailed:
            MailLogSysErrWrite(g_pLogHandle, "select", read.result, read.error, nullptr);
            trace_word(g_trace, 0, "smtp0f02", *pulErr);
            return kRecvFailed;
        case LineStatus::TimedOut:
            MailLogTimeOutWrite(g_pLogHandle, static_cast<int>(g_ulTimeOut), 1, "recv");
            trace_word(g_trace, 0, "smtp0f03", *pulErr);
            return kTimedOut;
        case LineStatus::RecvFailed:
            MailLogSysErrWrite(g_pLogHandle, "recv", read.result, read.error, nullptr);
            trace_word(g_trace, 0, "smtp0f05", *pulErr);
            return kRecvFailed;
        case LineStatus::PeerClosed:
            trace(g_trace, 0, "smtp0f10");
            MailLogSysErrWrite(g_pLogHandle, "recv", 0, read.error, nullptr);
            return kRecvFailed;
    }
    return kRecvFailed;
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
        // What strncpy of 255 characters and a NUL at index 255 give: the
        // text, cut, and zeros up to index 255.
        constexpr size_t kHandedOut = 256;
        std::memset(pszDest, 0, kHandedOut);
        kemail::copy_cut(pszDest, kHandedOut, s_szRecvBuf);
    }
    trace(g_trace, 1, "GETSMTPFFFF");
}

}  // extern "C"
