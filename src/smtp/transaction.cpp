// One mail transaction on an introduced session: MAIL FROM and RCPT TO,
// DATA, the staged message as it is, the end-of-data mark; RSET and QUIT.
#include "kemail.h"
#include "log/trace_record.h"
#include "smtp/smtp.h"
#include "smtp/smtp_buffers.h"

#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

using kemail::trace;
using kemail::trace_data;
using kemail::trace_text;
using kemail::trace_word;
using namespace kemail::smtp;

namespace {

// Room for one address of the recipient list, its NUL included.
constexpr size_t kRecipientSize = 304;
constexpr unsigned int kQuitTimeOut = 300;

// Sends the line in s_szSendBuf and reads the reply, logging both; the sent
// line is traced when `sent_code` is given (with `traced_length` bytes, or
// the line's text when 0).
int run_command(int sock, int length, const char* not_sent_code, const char* sent_code,
                size_t traced_length, unsigned trace_level, const char* no_reply_code,
                const char* reply_code, unsigned int* pulErr) {
    int result = send_command(sock, length, not_sent_code, pulErr);
    if (result != 0) return result;
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_SENT, s_szSendBuf);
    if (sent_code) {
        if (traced_length > 0) {
            trace_data(g_trace, trace_level, sent_code, s_szSendBuf, traced_length);
        } else {
            trace_text(g_trace, trace_level, sent_code, s_szSendBuf);
        }
    }
    if ((result = read_reply(sock, no_reply_code, pulErr)) != 0) return result;
    log_reply(reply_code);
    return 0;
}

// A line that does not fit the command buffer is not sent at all.
int refuse_long_command(const char* code, unsigned int* pulErr) {
    *pulErr = EMSGSIZE;
    trace_word(g_trace, 0, code, *pulErr);
    return kCommandTooLong;
}


}  // namespace

extern "C" {

// MAIL FROM, then one RCPT TO per comma-separated piece of the list, taken as
// it stands (blanks are kept, an empty piece gives an empty path). The first
// refused recipient ends the transaction; the rest are not tried.
KEMAIL_API int SMTP_MAIL(int lSock, const char* pszFrom, const char* pszTo,
                         unsigned int* pulErr) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    const char* recipients = pszTo ? pszTo : "";
    trace_text(g_trace, 1, "SMTP0200-2", recipients);
    SMTP_SetTimeOut(g_stMailTimeout.ulMailFrom);
    SMTP_SetStartTime();

    int length = format_command("MAIL FROM:<%s>\r\n", pszFrom ? pszFrom : "");
    if (length < 0) return refuse_long_command("smtp0145", pulErr);
    int result = run_command(lSock, length, "smtp0145", "smtp0148", 0, 2, "smtp0150", "smtp0155",
                             pulErr);
    if (result != 0) return result;
    if (s_szRecvBuf[0] != '2') {
        trace(g_trace, 2, "smtp0160");
        *pulErr = 0;
        return kMailRefused;
    }

    for (const char* piece = recipients;;) {
        const char* comma = std::strchr(piece, ',');
        const size_t piece_length = comma ? static_cast<size_t>(comma - piece) : std::strlen(piece);
        // An address that does not fit is refused, not cut: a cut address
        // could name another mailbox. The list's own limit (256 bytes)
        // keeps the send driver well inside this bound.
        if (piece_length >= kRecipientSize) {
            trace_word(g_trace, 0, "smtp0190", static_cast<uint32_t>(piece_length));
            *pulErr = EMSGSIZE;
            return kCommandTooLong;
        }
        char address[kRecipientSize];
        std::memcpy(address, piece, piece_length);
        address[piece_length] = '\0';

        SMTP_SetTimeOut(g_stMailTimeout.ulRcptTo);
        SMTP_SetStartTime();
        length = format_command("RCPT TO:<%s>\r\n", address);
        result = run_command(lSock, length, "smtp0165", "smtp0167", 0, 2, "smtp0170", "smtp0185",
                             pulErr);
        if (result != 0) return result;
        if (s_szRecvBuf[0] != '2') {
            trace(g_trace, 0, "smtp0190");
            return kRcptRefused;
        }
        if (!comma) {
            trace(g_trace, 0, "smtp0191");
            trace(g_trace, 1, "SMTP02FF-2");
            return 0;
        }
        piece = comma + 1;
    }
}

KEMAIL_API int SMTP_startData(int lSock, unsigned int* pulErr) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "smtp0200");
    SMTP_SetTimeOut(g_stMailTimeout.ulData);
    SMTP_SetStartTime();
    // The sent trace carries the command and its NUL.
    const int result = run_command(lSock, format_command("DATA\r\n"), "smtp0205", "smtp0208", 7, 2,
                                   "smtp0210", "smtp0215", pulErr);
    if (result != 0) return result;
    if (s_szRecvBuf[0] == '3') {
        trace(g_trace, 1, "smtp02FF");
        return 0;
    }
    trace_word(g_trace, 0, "smtp0220", *pulErr);
    return kDataRefused;
}

// Sends the staged message file exactly as it is (staging did the
// dot-stuffing), 1028 bytes a time through s_szRecvBuf; every chunk gets the
// whole data time-out.
KEMAIL_API int SMTP_sendData(int lSock, int lFile, unsigned int* pulErr) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "smtp0500");
    if (lseek(lFile, 0, SEEK_SET) < 0) {
        *pulErr = static_cast<unsigned int>(errno);
        trace_word(g_trace, 0, "smtp0505", *pulErr);
        return kFileError;
    }
    SMTP_SetTimeOut(g_stMailTimeout.ulDataBlock);
    const kemail::smtp::CorkedStream corked(lSock);
    for (;;) {
        const ssize_t got = read(lFile, s_szRecvBuf, KEMAIL_RECV_BUF_SIZE);
        if (got < 0) {
            const int error = errno;
            if (error == EINTR) continue;
            *pulErr = static_cast<unsigned int>(error);
            trace_word(g_trace, 0, "smtp0505", *pulErr);
            return kFileError;
        }
        if (got == 0) {
            trace(g_trace, 2, "smtp0506");
            trace(g_trace, 1, "smtp05FF");
            return 0;
        }
        SMTP_SetStartTime();
        const int result = SMTP_send(lSock, s_szRecvBuf, static_cast<int>(got), pulErr);
        if (result != 0) {
            trace_word(g_trace, 0, "smtp0510", *pulErr);
            return result;
        }
    }
}

// The mark begins with its own CR LF, so the message ends with a line break
// even when its text had none.
KEMAIL_API int SMTP_endData(int lSock, unsigned int* pulErr) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "smtp0400");
    SMTP_SetTimeOut(g_stMailTimeout.ulDataEnd);
    SMTP_SetStartTime();
    const int result = run_command(lSock, format_command("\r\n.\r\n"), "smtp0405", "smtp0408", 6,
                                   0, "smtp0410", "smtp0415", pulErr);
    if (result != 0) return result;
    if (s_szRecvBuf[0] == '2') {
        trace(g_trace, 1, "smtp04FF");
        return 0;
    }
    *pulErr = 0;
    trace_word(g_trace, 0, "smtp0420", *pulErr);
    return kMessageRefused;
}

// Keeps the current phase's time-out; only the clock restarts.
KEMAIL_API int SMTP_RSET(int lSock, unsigned int* pulErr) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "RSET0000");
    *pulErr = 0;
    SMTP_SetStartTime();
    const int result = run_command(lSock, format_command("RSET\r\n"), "RSET0005", nullptr, 0, 0,
                                   "RSET0010", "RSET0015", pulErr);
    if (result != 0) return result;
    if (s_szRecvBuf[0] == '2') {
        trace(g_trace, 1, "RSETFFFF");
        return 0;
    }
    trace(g_trace, 0, "RSET0020");
    return kRsetRefused;
}

// The reply to QUIT is read but not judged, and a server that closes
// without one is fine too; closing the socket is the caller's business.
KEMAIL_API int SMTP_QUIT(int lSock, unsigned int* pulErr) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "SMTP0400-2");
    SMTP_SetTimeOut(kQuitTimeOut);
    SMTP_SetStartTime();
    const int result = send_command(lSock, format_command("QUIT\r\n"), "smtp0410-2", pulErr);
    if (result != 0) return result;
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_SENT, s_szSendBuf);
    trace_data(g_trace, 2, "smtp0420-2", s_szSendBuf, 7);
    if (SMTP_returnMessage(lSock, s_szRecvBuf, KEMAIL_RECV_BUF_SIZE, pulErr) == 0) {
        log_reply("smtp0430-2");
    }
    trace(g_trace, 1, "SMTP04FF-2");
    return 0;
}

}  // extern "C"
