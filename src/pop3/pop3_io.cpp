// Sending commands to the POP3 server and reading its reply lines, each
// silence bounded by g_ulPopTimeOut.
#include "kemail.h"

#include "log/trace_record.h"
#include "pop3/pop3_internal.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <sys/select.h>
#include <sys/socket.h>

namespace kemail {

namespace {

// A closed connection is polled this many times more before it is given up.
constexpr int kClosedPolls = 5;

}  // namespace

void Pop3_SetWait(struct timeval* wait, time_t* start, unsigned int timeout, TraceHandle* trace) {
    kemail::trace(trace, 1, "PGTSTO0000");
    const time_t now = ::time(nullptr);
    if (*start > now) {
        kemail::trace(trace, 2, "PGTSTO0005");
        *start = now;
    }
    const long long remaining = static_cast<long long>(timeout) - static_cast<long long>(now - *start);
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
        // MSG_NOSIGNAL: a server that has gone away must give EPIPE here,
        // not a SIGPIPE that would end the calling process.
        const ssize_t n = ::send(sock, bytes + sent, static_cast<size_t>(length - sent), MSG_NOSIGNAL);
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
    // select() can only watch descriptors below FD_SETSIZE, and the line
    // needs room for one byte and the NUL.
    if (sock < 0 || sock >= FD_SETSIZE || !buf || size < 2) {
        *err = (sock < 0 || sock >= FD_SETSIZE) ? EBADF : EINVAL;
        kemail::trace(trace, 0, "Pop3_0c10");
        trace_word(trace, 0, "Pop3_0c30", static_cast<uint32_t>(*err));
        MailLogSysErrWrite(g_pLogHandle, "select", -1, *err, nullptr);
        return -1;
    }
    fd_set watched;
    FD_ZERO(&watched);
    FD_SET(sock, &watched);
    time_t start = ::time(nullptr);
    struct timeval wait;
    Pop3_SetWait(&wait, &start, g_ulPopTimeOut, trace);

    int count = 0;
    int closed = 0;
    for (;;) {
        fd_set readable = watched;
        struct timeval left = wait;
        const int ready = ::select(sock + 1, &readable, nullptr, nullptr, &left);
        if (ready < 0) {
            *err = errno;
            kemail::trace(trace, 0, "Pop3_0c10");
            if (*err != EINTR) {
                trace_word(trace, 0, "Pop3_0c30", static_cast<uint32_t>(*err));
                MailLogSysErrWrite(g_pLogHandle, "select", ready, *err, nullptr);
                return -1;
            }
            kemail::trace(trace, 0, "Pop3_0c20");
            *err = 0;
            Pop3_SetWait(&wait, &start, g_ulPopTimeOut, trace);
            continue;
        }
        if (ready == 0) {
            kemail::trace(trace, 0, "Pop3_0c50");
            MailLogTimeOutWrite(g_pLogHandle, static_cast<int>(g_ulPopTimeOut), 2, "recv");
            return -17;
        }
        char byte;
        errno = 0;  // so a closed connection reports 0, not a stale value
        const ssize_t n = ::recv(sock, &byte, 1, 0);
        if (n < 0) {
            if (errno == EINTR) {
                kemail::trace(trace, 0, "Pop3_0c110");
                Pop3_SetWait(&wait, &start, g_ulPopTimeOut, trace);
                continue;
            }
            *err = errno;
            trace_word(trace, 0, "Pop3_0c120", static_cast<uint32_t>(*err));
            MailLogSysErrWrite(g_pLogHandle, "recv", static_cast<int>(n), *err, nullptr);
            return -1;
        }
        if (n == 0) {
            *err = errno;
            if (++closed > kClosedPolls) {
                trace_word(trace, 0, "Pop3_0c150", static_cast<uint32_t>(*err));
                MailLogSysErrWrite(g_pLogHandle, "recv", 0, *err, nullptr);
                return -1;
            }
            kemail::trace(trace, 0, "Pop3_0c170");
            Pop3_SetWait(&wait, &start, g_ulPopTimeOut, trace);
            continue;
        }
        closed = 0;
        *err = 0;
        buf[count++] = byte;
        if (byte == '\n' || count >= size - 1) break;
    }
    buf[count] = '\0';
    trace_word(trace, 1, "Pop3_0cff", static_cast<uint32_t>(count));
    return count;
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
