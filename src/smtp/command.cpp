// The steps every SMTP command shares: forming the line in the command
// buffer, sending it, reading the reply and logging it.
#include "smtp/smtp.h"

#include "log/trace_record.h"

#include <cstdarg>
#include <cstdio>
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
    const int length = std::vsnprintf(s_szSendBuf, sizeof s_szSendBuf, format, args);
    va_end(args);
    if (length < 0 || static_cast<size_t>(length) >= sizeof s_szSendBuf) {
        s_szSendBuf[0] = '\0';
        return -1;
    }
    return length;
}

void log_reply(const char* trace_code) {
    const ReplyText reply(s_szRecvBuf);
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_RECEIVED, reply.text);
    trace_data(g_trace, 2, trace_code, reply.text, reply.length);
}

int send_command(int sock, int length, const char* not_sent_code, unsigned int* pulErr) {
    const int result = SMTP_send(sock, s_szSendBuf, length, pulErr);
    if (result != 0) trace_word(g_trace, 0, not_sent_code, *pulErr);
    return result;
}

int read_reply(int sock, const char* no_reply_code, unsigned int* pulErr) {
    const int result = SMTP_returnMessage(sock, s_szRecvBuf, KEMAIL_RECV_BUF_SIZE, pulErr);
    if (result != 0) trace_word(g_trace, 0, no_reply_code, *pulErr);
    return result;
}

}  // namespace kemail::smtp
