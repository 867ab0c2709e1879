// One mail transaction on an introduced session: MAIL FROM and RCPT TO,
// DATA, the staged message as it is, the end-of-data mark; RSET and QUIT.
#include "kemail.h"
#include "log/trace_record.h"
#include "smtp/smtp.h"
#include "smtp/smtp_buffers.h"
#include "util/util.h"

#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

using kemail::trace;
using kemail::trace_text;
using kemail::trace_word;
using namespace kemail::smtp;

namespace {

// Room for one address of the recipient list, its NUL included.
constexpr size_t kRecipientSize = 304;
constexpr unsigned int kQuitTimeOut = 300;

// Kept: a refused sender is traced (smtp0160) at level 2, not 0 (dialogue
// smtp-mail-refused-sender-gives-minus-22).
constexpr ExchangeCodes kMailFrom{.not_sent = "smtp0145",
                                  .sent = "smtp0148",
                                  .no_reply = "smtp0150",
                                  .reply = "smtp0155",
                                  .expect = '2',
                                  .refused = "smtp0160",
                                  .refused_level = 2,
                                  .refused_result = kMailRefused};
constexpr ExchangeCodes kRcptTo{.not_sent = "smtp0165",
                                .sent = "smtp0167",
                                .no_reply = "smtp0170",
                                .reply = "smtp0185",
                                .expect = '2',
                                .refused = "smtp0190",
                                .refused_result = kRcptRefused};
// Kept: the sent trace carries the command and its NUL (dialogue
// smtp-data-answered-250-gives-minus-24).
constexpr ExchangeCodes kData{.not_sent = "smtp0205",
                              .sent = "smtp0208",
                              .sent_length = 7,
                              .no_reply = "smtp0210",
                              .reply = "smtp0215",
                              .expect = '3',
                              .accepted = "smtp02FF",
                              .refused = "smtp0220",
                              .refused_word = true,
                              .refused_result = kDataRefused};
// Kept: the mark's sent trace is written at level 0 and carries the mark and
// its NUL (test Transaction.TheStagedFileGoesOutAsItIsAndTheMarkEndsIt).
constexpr ExchangeCodes kEndOfData{.not_sent = "smtp0405",
                                   .sent = "smtp0408",
                                   .sent_level = 0,
                                   .sent_length = 6,
                                   .no_reply = "smtp0410",
                                   .reply = "smtp0415",
                                   .expect = '2',
                                   .accepted = "smtp04FF",
                                   .refused = "smtp0420",
                                   .refused_word = true,
                                   .refused_result = kMessageRefused};
// Keeps the current phase's time-out; only the clock restarts.
constexpr ExchangeCodes kRset{.restarts_clock = true,
                              .not_sent = "RSET0005",
                              .no_reply = "RSET0010",
                              .reply = "RSET0015",
                              .expect = '2',
                              .accepted = "RSETFFFF",
                              .refused = "RSET0020",
                              .refused_result = kRsetRefused};
// No no-reply code: the reply to QUIT is read but neither required nor judged.
constexpr ExchangeCodes kQuit{
    .not_sent = "smtp0410-2", .sent = "smtp0420-2", .sent_length = 7, .reply = "smtp0430-2"};

void start_phase(unsigned int seconds) {
    SMTP_SetTimeOut(seconds);
    SMTP_SetStartTime();
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
                         unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    const char* recipients = pszTo ? pszTo : "";
    trace_text(g_trace, 1, "SMTP0200-2", recipients);
    start_phase(g_stMailTimeout.ulMailFrom);
    const int length = format_command("MAIL FROM:<%s>\r\n", pszFrom ? pszFrom : "");
    if (length < 0) return refuse_long_command("smtp0145", pulErr);
    int result = exchange(lSock, length, kMailFrom, pulErr);
    if (result != 0) return result;

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
        kemail::copy_cut(address, piece_length + 1, piece);

        start_phase(g_stMailTimeout.ulRcptTo);
        result = exchange(lSock, format_command("RCPT TO:<%s>\r\n", address), kRcptTo, pulErr);
        if (result != 0) return result;
        if (!comma) {
            trace(g_trace, 0, "smtp0191");
            trace(g_trace, 1, "SMTP02FF-2");
            return 0;
        }
        piece = comma + 1;
    }
}

KEMAIL_API int SMTP_startData(int lSock, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "smtp0200");
    start_phase(g_stMailTimeout.ulData);
    return exchange(lSock, format_command("DATA\r\n"), kData, pulErr);
}

// Sends the staged message file exactly as it is (staging did the
// dot-stuffing), 1028 bytes a time through s_szRecvBuf; every chunk gets the
// whole data time-out.
KEMAIL_API int SMTP_sendData(int lSock, int lFile, unsigned int* pulErr) noexcept {
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
KEMAIL_API int SMTP_endData(int lSock, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "smtp0400");
    start_phase(g_stMailTimeout.ulDataEnd);
    return exchange(lSock, format_command("\r\n.\r\n"), kEndOfData, pulErr);
}

KEMAIL_API int SMTP_RSET(int lSock, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "RSET0000");
    *pulErr = 0;
    return exchange(lSock, format_command("RSET\r\n"), kRset, pulErr);
}

// The reply to QUIT is read but not judged, and a server that closes
// without one is fine too; closing the socket is the caller's business.
KEMAIL_API int SMTP_QUIT(int lSock, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "SMTP0400-2");
    start_phase(kQuitTimeOut);
    const int result = exchange(lSock, format_command("QUIT\r\n"), kQuit, pulErr);
    if (result != 0) return result;
    trace(g_trace, 1, "SMTP04FF-2");
    return 0;
}

}  // extern "C"
