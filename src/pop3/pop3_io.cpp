// Sending commands to the POP3 server and reading its reply lines, each
// silence bounded by g_ulPopTimeOut.
#include "kemail.h"

#include "log/trace_record.h"
#include "net/net.h"
#include "net/stream.h"
#include "pop3/pop3_internal.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <sys/socket.h>

namespace kemail {

namespace {

// The POP time-out bounds every wait of the line reader, counted from when
// the line began; its retries are traced at level 0.
class PopWait final : public net::LineWait {
public:
    explicit PopWait(TraceHandle* trace) : trace_(trace), start_(::time(nullptr)) {}
    void compute(struct timeval* wait) override {
        Pop3_SetWait(wait, &start_, g_ulPopTimeOut, trace_);
    }
    // Kept: the codes Pop3_0c110 and Pop3_0c170 have five characters after
    // the underscore, unlike the rest (test
    // Pop3Session.AConnectionClosedMidLineFailsAfterSixPolls).
    void retrying(net::Retry event, int) override {
        switch (event) {
            case net::Retry::SelectInterrupted:
                kemail::trace(trace_, 0, "Pop3_0c10");
                kemail::trace(trace_, 0, "Pop3_0c20");
                break;
            case net::Retry::RecvInterrupted: kemail::trace(trace_, 0, "Pop3_0c110"); break;
            case net::Retry::PeerClosed: kemail::trace(trace_, 0, "Pop3_0c170"); break;
        }
    }

private:
    TraceHandle* trace_;
    time_t start_;
};

}  // namespace

void Pop3_SetWait(struct timeval* wait, time_t* start, unsigned int timeout, TraceHandle* trace) {
    kemail::trace(trace, 1, "PGTSTO0000");
    const time_t now = ::time(nullptr);
    if (*start > now) {
        kemail::trace(trace, 2, "PGTSTO0005");
        *start = now;
    }
    const long long remaining =
        static_cast<long long>(timeout) - static_cast<long long>(now - *start);
    if (remaining < 0) {
        trace_word(trace, 0, "PGTSTO0010", static_cast<uint32_t>(remaining));
        trace_word(trace, 0, "PGTSTO0020", static_cast<uint32_t>(*start));
        wait->tv_sec = 0;
        wait->tv_usec = 0;
        return;
    }
    wait->tv_sec = static_cast<time_t>(remaining);
    wait->tv_usec = 0;
    kemail::trace(trace, 1, "PGTSTOFFFF");
}

int Pop3_Send(int sock, const char* bytes, int length, int* err, TraceHandle* trace) {
    trace_data(trace, 1, "Pop3_0b00", bytes, length > 0 ? static_cast<size_t>(length) : 0);
    *err = 0;
    int sent = 0;
    while (sent < length) {
        const ssize_t n =
            kemail::net::stream_send(sock, bytes + sent, static_cast<size_t>(length - sent));
        if (n < 0) {
            if (errno == EINTR) {
                kemail::trace(trace, 0, "Pop3_0b10");
                continue;
            }
            *err = errno;
            trace_word(trace, 0, "Pop3_0b20", static_cast<uint32_t>(*err));
            MailLogSysErrWrite(g_pLogHandle, "send", static_cast<int>(n), *err, nullptr);
            return -1;
        }
        if (n == 0) {
            *err = errno;
            trace_word(trace, 0, "Pop3_0b40", static_cast<uint32_t>(*err));
            MailLogSysErrWrite(g_pLogHandle, "send", 0, *err, nullptr);
            return -1;
        }
        sent += static_cast<int>(n);
    }
    trace_word(trace, 1, "Pop3_0bff", static_cast<uint32_t>(sent));
    return sent;
}

int Pop3_RecvLine(int sock, char* buf, int size, int* err, TraceHandle* trace) {
    kemail::trace(trace, 1, "Pop3_0c00");
    *err = 0;
    PopWait wait(trace);
    // The line needs room for one byte and the NUL; a socket select cannot
    // watch fails in the reader the same way.
    const net::LineRead read =
        (!buf || size < 2)
            ? net::LineRead{net::LineStatus::SelectFailed, 0, -1, EINVAL}
            : net::read_line(sock, buf, static_cast<size_t>(size - 1), net::LineEnd::Lf, wait);
    switch (read.status) {
        case net::LineStatus::Done: break;
        case net::LineStatus::SelectFailed:
            *err = read.error;
            kemail::trace(trace, 0, "Pop3_0c10");
            trace_word(trace, 0, "Pop3_0c30", static_cast<uint32_t>(*err));
            MailLogSysErrWrite(g_pLogHandle, "select", read.result, *err, nullptr);
            return -1;
        case net::LineStatus::TimedOut:
            kemail::trace(trace, 0, "Pop3_0c50");
            MailLogTimeOutWrite(g_pLogHandle, static_cast<int>(g_ulPopTimeOut), 2, "recv");
            return -17;
        case net::LineStatus::RecvFailed:
            *err = read.error;
            trace_word(trace, 0, "Pop3_0c120", static_cast<uint32_t>(*err));
            MailLogSysErrWrite(g_pLogHandle, "recv", read.result, *err, nullptr);
            return -1;
        case net::LineStatus::PeerClosed:
            // An end of stream sets no errno: the slot reports 0.
            trace_word(trace, 0, "Pop3_0c150", 0);
            MailLogSysErrWrite(g_pLogHandle, "recv", 0, 0, nullptr);
            return -1;
    }
    buf[read.count] = '\0';
    trace_word(trace, 1, "Pop3_0cff", static_cast<uint32_t>(read.count));
    return static_cast<int>(read.count);
}

int Pop3_RecvReply(int sock, char* buf, int size, int* err, TraceHandle* trace) {
    kemail::trace(trace, 1, "Pop3_0a00");
    const int count = Pop3_RecvLine(sock, buf, size, err, trace);
    if (count < 0) {
        trace_word(trace, 0, "Pop3_0a10", static_cast<uint32_t>(count));
        return count;
    }
    trace_data(trace, 2, "Pop3_0a20", buf, static_cast<size_t>(count));
    if (count > 3 && std::memcmp(buf, "+OK", 3) == 0) {
        kemail::trace(trace, 1, "Pop3_0aff");
        return 1;
    }
    trace_data(trace, 0, "Pop3_0a30", buf, static_cast<size_t>(count));
    return 2;
}

}  // namespace kemail
