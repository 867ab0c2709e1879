// The POP3 log-in, status and log-out commands. Every command and reply goes
// to the mail log; the password command is logged as "******".
#include "kemail.h"

#include "log/trace_record.h"
#include "pop3/pop3_internal.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace kemail {

namespace {

// A command line of RFC 2449's largest size, CR LF included, plus the NUL.
// "USER %s" and "PASS %s" thus take names and passwords of up to 248 bytes;
// a longer one is refused, not cut: a cut name would log in as somebody
// else, or fail in a way that blames the server.
constexpr size_t kCommandSize = 256;

// Copies a refused reply into the caller's buffer (at least
// KEMAIL_MESSAGE_SIZE bytes), cut to 255 bytes and a NUL.
void copy_reply(char* dest, const char* line) {
    if (!dest) return;
    const size_t length = ::strnlen(line, KEMAIL_MESSAGE_SIZE - 1);
    std::memcpy(dest, line, length);
    dest[length] = '\0';
}

// Formats "<verb> <argument>\r\n" into command; false when it does not fit.
bool format_command(char (&command)[kCommandSize], const char* verb, const char* argument) {
    const int n = std::snprintf(command, sizeof command, "%s %s\r\n", verb, argument ? argument : "");
    return n >= 0 && static_cast<size_t>(n) < sizeof command;
}

// Sends a formatted command line; -1 with EMSGSIZE when it did not fit.
int send_command(int sock, const char (&command)[kCommandSize], bool fits, int* err,
                 TraceHandle* trace) {
    if (!fits) {
        *err = EMSGSIZE;
        return -1;
    }
    return Pop3_Send(sock, command, static_cast<int>(std::strlen(command)), err, trace);
}

}  // namespace

}  // namespace kemail

extern "C" {

KEMAIL_API int Pop3_Login(int lSock, const char* pszUser, const char* pszPassword, char* pszReply,
                          int* plErr, TraceHandle* pTrace) {
    using namespace kemail;
    int unused_err = 0;
    int* err = plErr ? plErr : &unused_err;
    char line[kPop3LineSize] = {};
    char command[kCommandSize];

    trace_text(pTrace, 1, "Pop3_0400", pszUser ? pszUser : "");
    if (pszReply) pszReply[0] = '\0';

    int reply = Pop3_RecvReply(lSock, line, sizeof line, err, pTrace);
    if (reply < 0) {
        trace_word(pTrace, 0, "Pop3_0410", static_cast<uint32_t>(reply));
        return reply;
    }
    MailLogWrite(g_pLogHandle, 2, line);
    if (reply != 1) {
        trace_text(pTrace, 0, "Pop3_0420", line);
        copy_reply(pszReply, line);
        return -2;
    }

    trace(pTrace, 2, "Pop3_0500");
    bool fits = format_command(command, "USER", pszUser);
    if (send_command(lSock, command, fits, err, pTrace) < 0) {
        trace_word(pTrace, 0, "Pop3_0510", static_cast<uint32_t>(-1));
        return -1;
    }
    MailLogWrite(g_pLogHandle, 1, command);
    reply = Pop3_RecvReply(lSock, line, sizeof line, err, pTrace);
    if (reply < 0) {
        trace_word(pTrace, 0, "Pop3_0520", static_cast<uint32_t>(reply));
        return reply;
    }
    MailLogWrite(g_pLogHandle, 2, line);
    if (reply != 1) {
        trace_text(pTrace, 0, "Pop3_0530", line);
        copy_reply(pszReply, line);
        return -3;
    }

    trace(pTrace, 2, "Pop3_0600");
    fits = format_command(command, "PASS", pszPassword);
    const int sent = send_command(lSock, command, fits, err, pTrace);
    ::explicit_bzero(command, sizeof command);
    if (sent < 0) {
        trace_word(pTrace, 0, "Pop3_0610", static_cast<uint32_t>(-1));
        return -1;
    }
    MailLogWrite(g_pLogHandle, 1, "******");
    reply = Pop3_RecvReply(lSock, line, sizeof line, err, pTrace);
    if (reply < 0) {
        trace_word(pTrace, 0, "Pop3_0620", static_cast<uint32_t>(reply));
        return reply;
    }
    MailLogWrite(g_pLogHandle, 2, line);
    if (reply != 1) {
        trace_text(pTrace, 0, "Pop3_0630", line);
        copy_reply(pszReply, line);
        return -4;
    }
    trace(pTrace, 1, "Pop3_07ff");
    return 0;
}

KEMAIL_API int Pop3_STAT(int lSock, char* pszReply, int* plErr, TraceHandle* pTrace) {
    using namespace kemail;
    static const char kStat[] = "STAT\r\n";
    int unused_err = 0;
    int* err = plErr ? plErr : &unused_err;
    char line[kPop3LineSize] = {};

    trace(pTrace, 1, "Pop3_0900");
    if (pszReply) pszReply[0] = '\0';
    if (Pop3_Send(lSock, kStat, sizeof kStat - 1, err, pTrace) < 0) {
        trace_word(pTrace, 0, "Pop3_0910", static_cast<uint32_t>(-1));
        return -1;
    }
    MailLogWrite(g_pLogHandle, 1, kStat);
    const int reply = Pop3_RecvReply(lSock, line, sizeof line, err, pTrace);
    if (reply < 0) {
        trace_word(pTrace, 0, "Pop3_0920", static_cast<uint32_t>(reply));
        return reply;
    }
    MailLogWrite(g_pLogHandle, 2, line);
    if (reply == 1) {
        trace(pTrace, 1, "Pop3_09ff");
        return 0;
    }
    trace_text(pTrace, 0, "Pop3_0930", line);
    copy_reply(pszReply, line);
    return -5;
}

KEMAIL_API int Pop3_Logout(int lSock, char* pszReply, int* plErr, TraceHandle* pTrace) {
    using namespace kemail;
    static const char kQuit[] = "QUIT\r\n";
    int unused_err = 0;
    int* err = plErr ? plErr : &unused_err;
    char line[kPop3LineSize] = {};

    trace(pTrace, 1, "Pop3_0800");
    if (Pop3_Send(lSock, kQuit, sizeof kQuit - 1, err, pTrace) < 0) {
        trace_text(pTrace, 0, "Pop3_0810", kQuit);
        return -1;
    }
    MailLogWrite(g_pLogHandle, 1, kQuit);
    trace(pTrace, 2, "Pop3_0820");
    const int reply = Pop3_RecvReply(lSock, line, sizeof line, err, pTrace);
    if (reply < 0) {
        // The line buffer was zero-filled, so what arrived before the failure
        // is terminated.
        trace_text(pTrace, 0, "Pop3_0830", line);
        return reply;
    }
    MailLogWrite(g_pLogHandle, 2, line);
    if (reply == 1) {
        trace(pTrace, 1, "Pop3_08ff");
        return 0;
    }
    trace_text(pTrace, 0, "Pop3_0840", line);
    copy_reply(pszReply, line);
    return -8;
}

}  // extern "C"
