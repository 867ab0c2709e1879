// The exchange every SMTP command goes through: forming the line in the
// command buffer, sending it, reading the reply, logging and judging it.
#include "smtp/smtp.h"

#include "log/trace_record.h"
#include "util/format.h"

#include <cstdarg>
#include <cstring>

namespace kemail::smtp {

size_t reply_length(const char* buf, size_t size) { return strnlen(buf, size); }

ReplyText::ReplyText(const char* buf, size_t size) {
    if (size > KEMAIL_RECV_BUF_SIZE) size = KEMAIL_RECV_BUF_SIZE;
    length = reply_length(buf, size);
    std::memcpy(text, buf, length);
    text[length] = '\0';
}

int format_command(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length =
        vformat_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Refuse, format, args);
    va_end(args);
    return length;
}

void log_reply(const char* trace_code) {
    const ReplyText reply(s_szRecvBuf);
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_RECEIVED, reply.text);
    trace_data(g_trace, 2, trace_code, reply.text, reply.length);
}

namespace {

// A line the log may not show (a password or AUTH string) leaves the
// command buffer once it is sent and traced.
void forget_secret_line(const char* logged) {
    if (logged != nullptr) explicit_bzero(s_szSendBuf, sizeof s_szSendBuf);
}

}  // namespace

int exchange(int sock, int length, const ExchangeCodes& codes, unsigned int* pulErr,
             const char* logged) {
    if (codes.restarts_clock) SMTP_SetStartTime();
    const int result = SMTP_send(sock, s_szSendBuf, length, pulErr);
    if (result != 0) {
        forget_secret_line(logged);
        trace_word(g_trace, 0, codes.not_sent, *pulErr);
        return result;
    }
    return exchange_after_send(sock, codes, pulErr, logged);
}

int exchange_after_send(int sock, const ExchangeCodes& codes, unsigned int* pulErr,
                        const char* logged) {
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_SENT, logged ? logged : s_szSendBuf);
    if (codes.sent) {
        if (codes.sent_length > 0) {
            trace_data(g_trace, codes.sent_level, codes.sent, s_szSendBuf, codes.sent_length);
        } else {
            trace_text(g_trace, codes.sent_level, codes.sent, s_szSendBuf);
        }
    }
    forget_secret_line(logged);
    if (!codes.reply) return 0;

    const int result = SMTP_returnMessage(sock, s_szRecvBuf, KEMAIL_RECV_BUF_SIZE, pulErr);
    if (result != 0) {
        if (!codes.no_reply) return 0;
        trace_word(g_trace, 0, codes.no_reply, *pulErr);
        return result;
    }
    log_reply(codes.reply);
    if (codes.expect == '\0') return 0;
    if (s_szRecvBuf[0] == codes.expect) {
        if (codes.accepted) trace(g_trace, 1, codes.accepted);
        return 0;
    }
    // A refusal is no system error (a reply that was read left the word 0).
    *pulErr = 0;
    if (codes.refused_word) {
        trace_word(g_trace, codes.refused_level, codes.refused, *pulErr);
    } else {
        trace(g_trace, codes.refused_level, codes.refused);
    }
    return codes.refused_result;
}

}  // namespace kemail::smtp
