// message/partial pieces: the identifier all pieces share, and one piece sent
// with its own outer header.
#include "compose/compose.h"

#include "log/trace_record.h"
#include "smtp/smtp.h"
#include "util/util.h"
#include "smtp/smtp_buffers.h"
#include "util/format.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

namespace kemail {
namespace {

// gethostname's name: 128 bytes and a NUL that is always there.
constexpr size_t kHostNameSize = 129;

// Sends a text; on failure traces the code with the error word.
int send_text(int sock, const char* text, size_t length, const char* code, unsigned int* pulErr) {
    const int result = SMTP_send(sock, text, static_cast<int>(length), pulErr);
    if (result != 0) trace_word(g_trace, 0, code, *pulErr);
    return result;
}

int send_outer_header(int sock, const char* from, const char* to, const char* subject, int number,
                      int total, const char* id, unsigned int* pulErr) {
    char date[KEMAIL_DATE_SIZE];
    SMTP_makeDate(date);
    SMTP_SetStartTime();

    HeaderSink sink(HeaderSink::Kind::Socket, sock, pulErr);
    static constexpr AddressCodes kAddressCodes{.date = {nullptr, "smtp1410", "smtp1415"},
                                                .from = {nullptr, "smtp1420", "smtp1425"},
                                                .to = {nullptr, "smtp1430", "smtp1430-1"},
                                                .to_stopped = "smtp1432",
                                                .to_done = "smtp1431"};
    char element[kElementBufferSize];
    int result = put_address_lines(sink, date, from, to, element, kAddressCodes);
    if (result != 0) return result;

    if (subject != nullptr) {
        make_subject(subject, element, sizeof element);
        trace_text(g_trace, 2, "smtp1435", element);
    } else {
        element[0] = '\0';
    }
    const PieceMark piece{number, total};
    if ((result = put_subject_line(sink, element, &piece, {nullptr, "smtp1440", "smtp1445"})) != 0)
        return result;
    result =
        put_identity_lines(sink, {nullptr, "smtp1447", nullptr}, {nullptr, "smtp1450", nullptr});
    if (result != 0) return result;
    // Kept: the trace shows the line formatted last, the Subject line
    // (test Partial.MimeVersionTraceShowsTheSubjectLine).
    trace_text(g_trace, 2, "smtp1452", s_szSendBuf);
    const int n =
        format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut,
                    "Content-Type: message/partial; number=%d; total=%d;\r\n\tid=\"%s\"\r\n",
                    number, total, id);
    if ((result =
             sink.put(s_szSendBuf, static_cast<size_t>(n), {nullptr, "smtp1455", "smtp1458"})) != 0)
        return result;
    if ((result = send_text(sock, "\r\n", 2, "smtp1460", pulErr)) != 0) return result;
    trace_text(g_trace, 2, "smtp1465", s_szSendBuf);
    return 0;
}

}  // namespace
}  // namespace kemail

using namespace kemail;

extern "C" {

KEMAIL_API int SMTP_makeid(char* pszId, const char* pszFrom) noexcept {
    if (pszId == nullptr) return 0;
    // The caller's buffer is zeroed by contract; read no further than its size.
    trace_data(g_trace, 1, "smtp1500", pszId, strnlen(pszId, KEMAIL_PARTIAL_ID_SIZE));
    char sender[kElementBufferSize];
    copy_cut(sender, sizeof sender, pszFrom ? pszFrom : "");
    for (char* at = std::strchr(sender, '@'); at != nullptr; at = std::strchr(at + 1, '@'))
        *at = '.';

    char host[kHostNameSize] = {};
    gethostname(host, kHostNameSize - 1);
    trace_text(g_trace, 2, "smtp1510", host);
    if (char* dot = std::strchr(host, '.')) *dot = '\0';

    const uint32_t host_id = kemail::host_id();
    trace_word(g_trace, 2, "smtp1515", host_id);

    uint32_t seconds;
    uint32_t microseconds;
    struct timeval tv = {};
    if (gettimeofday(&tv, nullptr) == 0) {
        trace(g_trace, 2, "smtp1530");
        seconds = static_cast<uint32_t>(tv.tv_sec);
        microseconds = static_cast<uint32_t>(tv.tv_usec);
    } else {
        trace_word(g_trace, 0, "smtp1520", static_cast<uint32_t>(errno));
        seconds = static_cast<uint32_t>(time(nullptr));
        microseconds = 0;
    }
    trace_word(g_trace, 2, "smtp1540", seconds);
    trace_word(g_trace, 2, "smtp1550", microseconds);

    const int length = format_into(pszId, KEMAIL_PARTIAL_ID_SIZE, Overflow::Cut, "luntb%x%x%s%x@%s",
                                   seconds, microseconds, host, host_id, sender);
    trace_text(g_trace, 1, "smtp15FF", pszId);
    return static_cast<int>(length);
}

KEMAIL_API int SMTP_sendData_Partial(int lSock, char* pPiece, int lLength, const char* pszFrom,
                                     const char* pszTo, const char* pszSubject, int lNumber,
                                     int lTotal, const char* pszId, unsigned int* pulErr) noexcept {
    unsigned int local_err = 0;
    if (pulErr == nullptr) pulErr = &local_err;
    trace(g_trace, 1, "smtp1400");
    SMTP_SetTimeOut(g_stMailTimeout.ulDataBlock);
    // The header lines and the piece leave together in full segments.
    const kemail::smtp::CorkedStream corked(lSock);

    int result = send_outer_header(lSock, pszFrom ? pszFrom : "", pszTo, pszSubject, lNumber,
                                   lTotal, pszId ? pszId : "", pulErr);
    // An empty piece has no bytes to send (a zero-length send would count as
    // a stalled connection).
    if (result == 0 && pPiece != nullptr && lLength > 0) {
        result = send_text(lSock, pPiece, static_cast<size_t>(lLength), "smtp1470", pulErr);
    }
    if (result != 0) {
        trace_word(g_trace, 0, "smtp1480", *pulErr);
        return result;
    }
    trace(g_trace, 1, "smtp14FF");
    return 0;
}

}  // extern "C"
