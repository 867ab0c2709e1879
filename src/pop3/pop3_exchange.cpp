// The exchange every POP3 step goes through: send the command, log it, read
// the one-line reply, log it, judge it, and hand a refusal to the caller.
#include "kemail.h"

#include "log/trace_record.h"
#include "pop3/pop3_internal.h"
#include "util/util.h"

#include <cerrno>
#include <cstdint>

namespace kemail {

int pop3_exchange(int sock, const Pop3Command& command, const Pop3Codes& codes, char* reply_out,
                  int* err, TraceHandle* trace) {
    int unused_err = 0;
    if (!err) err = &unused_err;
    // Zero-filled, so what arrives before a failed read is terminated.
    char line[kPop3LineSize] = {};
    if (codes.before) kemail::trace(trace, 2, codes.before);
    if (command.bytes) {
        int sent = -1;
        if (command.length < 0) {
            *err = EMSGSIZE;  // the line did not fit its buffer: not sent at all
        } else {
            sent = Pop3_Send(sock, command.bytes, command.length, err, trace);
        }
        if (sent < 0) {
            if (codes.not_sent_shows_command) {
                trace_text(trace, 0, codes.not_sent, command.bytes);
            } else {
                trace_word(trace, 0, codes.not_sent, static_cast<uint32_t>(-1));
            }
            return -1;
        }
        MailLogWrite(g_pLogHandle, KEMAIL_LOG_SENT,
                     command.logged ? command.logged : command.bytes);
        if (codes.sent) kemail::trace(trace, 2, codes.sent);
    }

    const int reply = Pop3_RecvReply(sock, line, kPop3LineSize, err, trace);
    if (reply < 0) {
        if (codes.no_reply_shows_line) {
            trace_text(trace, 0, codes.no_reply, line);
        } else {
            trace_word(trace, 0, codes.no_reply, static_cast<uint32_t>(reply));
        }
        return reply;
    }
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_RECEIVED, line);
    if (reply == 1) {
        if (codes.accepted) kemail::trace(trace, 1, codes.accepted);
        return 0;
    }
    trace_text(trace, 0, codes.refused, line);
    // The caller's reply buffer holds KEMAIL_MESSAGE_SIZE bytes.
    copy_cut(reply_out, KEMAIL_MESSAGE_SIZE, line);
    return codes.refused_result;
}

}  // namespace kemail
