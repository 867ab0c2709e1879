// One mail transaction on an introduced session: MAIL FROM and RCPT TO,
// DATA, the staged message as it is, the end-of-data mark; RSET and QUIT.
#include "kemail.h"
#include "log/trace_record.h"
#include "smtp/smtp.h"
#include "smtp/smtp_buffers.h"
#include "smtp/transaction_codes.h"
#include "util/util.h"

#include <algorithm>
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

// No no-reply code: the reply to QUIT is read but neither required nor judged.
constexpr ExchangeCodes kQuit{
    .not_sent = "smtp0410-2", .sent = "smtp0420-2", .sent_length = 7, .reply = "smtp0430-2"};

// The transfer block: 255 chunks of 1028 bytes (just under 256 KiB), few
// enough system calls for a large message, little enough memory. Static:
// one session runs at a time, and a send must not fail for want of memory.
char s_transferBlock[255 * KEMAIL_RECV_BUF_SIZE];

// Fills buf from the file as far as it goes: the count read, short only at
// the end of the file or on a read error (its errno in *error, else 0).
size_t read_block(int fd, char* buf, size_t size, int* error) {
    size_t got = 0;
    *error = 0;
    while (got < size) {
        const ssize_t n = read(fd, buf + got, size - got);
        if (n < 0) {
            if (errno == EINTR) continue;
            *error = errno;
            break;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    return got;
}

// Reading chunk after chunk into s_szRecvBuf leaves there the last chunk
// read, over what is left of the one before it when the last is shorter.
void leave_last_chunk(const char* block, size_t length, size_t last) {
    const size_t n = std::min<size_t>(KEMAIL_RECV_BUF_SIZE, length - last);
    if (n < KEMAIL_RECV_BUF_SIZE && last >= KEMAIL_RECV_BUF_SIZE)
        std::memcpy(s_szRecvBuf, block + last - KEMAIL_RECV_BUF_SIZE, KEMAIL_RECV_BUF_SIZE);
    std::memcpy(s_szRecvBuf, block + last, n);
}

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
// dot-stuffing), as 1028-byte chunks each with the whole data time-out and
// its own trace record. The file is read and handed to the socket a block
// of whole chunks at a time; s_szRecvBuf is left holding what reading the
// file chunk by chunk through it would leave there.
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
        int read_error = 0;
        const size_t got = read_block(lFile, s_transferBlock, sizeof s_transferBlock, &read_error);
        if (got > 0) {
            size_t last = 0;
            const int result =
                send_in_chunks(lSock, s_transferBlock, got, KEMAIL_RECV_BUF_SIZE, pulErr, &last);
            leave_last_chunk(s_transferBlock, got, last);
            if (result != 0) {
                trace_word(g_trace, 0, "smtp0510", *pulErr);
                return result;
            }
        }
        if (read_error != 0) {
            *pulErr = static_cast<unsigned int>(read_error);
            trace_word(g_trace, 0, "smtp0505", *pulErr);
            return kFileError;
        }
        if (got < sizeof s_transferBlock) {
            trace(g_trace, 2, "smtp0506");
            trace(g_trace, 1, "smtp05FF");
            return 0;
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
